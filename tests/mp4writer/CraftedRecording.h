// Builds recordings field by field for repair tests: an ftyp box, an mdat header whose size
// was never patched (as a killed recording leaves it), then repair records, each chunk
// record followed by its samples' bytes. Every count and size is the caller's choice, so a
// test can claim what the writer never would.
#ifndef TAVO_TESTS_MP4WRITER_CRAFTED_RECORDING_H
#define TAVO_TESTS_MP4WRITER_CRAFTED_RECORDING_H

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "RepairRecord.h"
#include "UniqueHandle.h"

class CraftedRecording {
public:
    using Bytes = std::vector<uint8_t>;

    struct Sample {
        uint64_t size;  // bytes in the file, H.264 length prefix included
        bool sync;
        uint64_t toNext;  // ticks to the next sample
    };

    CraftedRecording() {
        const uint8_t head[] = {0,   0,   0,   24,  'f', 't', 'y', 'p', '3', 'g', 'p',
                                '4', 0,   0,   0,   0,   'i', 's', 'o', 'm', '3', 'g',
                                'p', '4', '?', '?', '?', '?', 'm', 'd', 'a', 't'};
        mBytes.assign(head, head + sizeof(head));
    }

    // A configuration record: 4-byte NAL lengths, tracks of the given kinds (REPAIR_TRACK_AVC
    // with a valid avcC, REPAIR_TRACK_AAC) in that order.
    CraftedRecording& config(const std::vector<uint8_t>& kinds) {
        RepairRecordBuilder record;
        record.begin(&mBytes, REPAIR_RECORD_CONFIG);
        record.u32(1000);
        record.u8(1);
        record.u8(static_cast<uint8_t>(kinds.size()));
        for (uint8_t kind : kinds) {
            const bool video = kind == REPAIR_TRACK_AVC;
            record.u8(kind);
            record.u16(video ? 320 : 0);
            record.u16(video ? 240 : 0);
            record.u32(video ? 25 : 24000);
            record.u32(video ? 90000 : 24000);
            const Bytes avcc = {1,    0x42, 0xC0, 0x1E, 0xFF, 0xE1, 0,    4,    0x67, 0x42,
                                0xC0, 0x1E, 1,    0,    4,    0x68, 0xCE, 0x3C, 0x80};
            record.u16(video ? static_cast<uint16_t>(avcc.size()) : 0);
            if (video)
                record.bytes(avcc.data(), avcc.size());
        }
        record.end();
        return *this;
    }

    // A chunk record of `track` claiming `claimedCount` samples (the real count when
    // negative), then the samples' bytes. `kind` decides their form: H.264 samples carry a
    // 4-byte length prefix that matches their size. `withBytes` false leaves the bytes out.
    CraftedRecording& chunk(uint8_t track, uint8_t kind, uint64_t ticks,
                            const std::vector<Sample>& samples, int64_t claimedCount = -1,
                            bool withBytes = true) {
        RepairRecordBuilder record;
        record.begin(&mBytes, REPAIR_RECORD_CHUNK);
        record.u8(track);
        record.varint(ticks);
        record.varint(claimedCount < 0 ? samples.size() : static_cast<uint64_t>(claimedCount));
        for (const Sample& sample : samples) {
            record.varint(sample.size << 1 | (sample.sync ? 1 : 0));
            record.varint(sample.toNext);
        }
        record.end();
        if (!withBytes)
            return *this;
        for (const Sample& sample : samples) {
            const size_t start = mBytes.size();
            mBytes.resize(start + sample.size, static_cast<uint8_t>(sample.size));
            if (kind == REPAIR_TRACK_AVC && sample.size > 4) {
                const uint64_t nal = sample.size - 4;
                for (int i = 0; i < 4; ++i)
                    mBytes[start + i] = static_cast<uint8_t>(nal >> (24 - 8 * i));
                mBytes[start + 4] = sample.sync ? 0x65 : 0x41;
            }
        }
        return *this;
    }

    // A record of any type and body.
    CraftedRecording& record(uint8_t type, const Bytes& body) {
        RepairRecordBuilder record;
        record.begin(&mBytes, type);
        record.bytes(body.data(), body.size());
        record.end();
        return *this;
    }

    const Bytes& bytes() const { return mBytes; }
    size_t size() const { return mBytes.size(); }

    // Writes the bytes to `path` (created or truncated); false on failure.
    bool writeTo(const std::string& path) const {
        UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        if (!fd)
            return false;
        const bool written =
            write(fd.get(), mBytes.data(), mBytes.size()) == static_cast<ssize_t>(mBytes.size());
        // Closed by hand: a failing close means the bytes may not have reached the file, and
        // the handle's release cannot report that.
        return close(fd.release()) == 0 && written;
    }

private:
    Bytes mBytes;
};

#endif  // TAVO_TESTS_MP4WRITER_CRAFTED_RECORDING_H
