#include "Mp4Summary.h"

#include "DemoFiles.h"

namespace {

class Reader {
public:
    Reader(const std::string& bytes, size_t begin, size_t end)
        : mBytes(bytes), mAt(begin), mEnd(end) {}

    bool has(size_t n) const { return mAt + n <= mEnd; }
    size_t at() const { return mAt; }
    void skip(size_t n) { mAt += n; }
    uint8_t u8() { return static_cast<uint8_t>(mBytes[mAt++]); }
    uint16_t u16() {
        uint16_t high = u8();
        return static_cast<uint16_t>((high << 8) | u8());
    }
    uint32_t u32() {
        uint32_t high = u16();
        return (high << 16) | u16();
    }
    uint64_t u64() {
        uint64_t high = u32();
        return (high << 32) | u32();
    }
    std::string fourcc() {
        std::string text = mBytes.substr(mAt, 4);
        mAt += 4;
        return text;
    }

private:
    const std::string& mBytes;
    size_t mAt;
    size_t mEnd;
};

struct Box {
    std::string type;
    size_t payload;  // first byte after the header
    size_t end;
};

// The boxes directly inside [begin, end); stops at the first malformed header.
std::vector<Box> children(const std::string& bytes, size_t begin, size_t end, bool* ok) {
    std::vector<Box> boxes;
    Reader reader(bytes, begin, end);
    while (reader.has(8)) {
        size_t start = reader.at();
        uint64_t size = reader.u32();
        std::string type = reader.fourcc();
        if (size == 1) {
            if (!reader.has(8))
                break;
            size = reader.u64();
        } else if (size == 0) {
            size = end - start;
        }
        if (size < reader.at() - start || start + size > end) {
            *ok = false;
            break;
        }
        boxes.push_back({type, reader.at(), static_cast<size_t>(start + size)});
        reader.skip(static_cast<size_t>(start + size) - reader.at());
    }
    return boxes;
}

const Box* find(const std::vector<Box>& boxes, const char* type) {
    for (const Box& box : boxes) {
        if (box.type == type)
            return &box;
    }
    return nullptr;
}

// Time scale and duration of an mvhd or mdhd box (full box, version 0 or 1).
void readTimes(const std::string& bytes, const Box& box, uint32_t* timescale, uint64_t* duration) {
    Reader reader(bytes, box.payload, box.end);
    if (!reader.has(4))
        return;
    uint8_t version = reader.u8();
    reader.skip(3);
    if (version == 1 && reader.has(28)) {
        reader.skip(16);
        *timescale = reader.u32();
        *duration = reader.u64();
    } else if (reader.has(16)) {
        reader.skip(8);
        *timescale = reader.u32();
        *duration = reader.u32();
    }
}

void readTrack(const std::string& bytes, const Box& trak, Mp4Track* track, bool* ok) {
    std::vector<Box> inTrak = children(bytes, trak.payload, trak.end, ok);
    if (const Box* tkhd = find(inTrak, "tkhd")) {
        Reader reader(bytes, tkhd->payload, tkhd->end);
        if (reader.has(4)) {
            uint8_t version = reader.u8();
            reader.skip(3 + (version == 1 ? 16 : 8));
            if (reader.has(4))
                track->trackID = reader.u32();
        }
    }
    const Box* mdia = find(inTrak, "mdia");
    if (mdia == nullptr)
        return;
    std::vector<Box> inMdia = children(bytes, mdia->payload, mdia->end, ok);
    if (const Box* mdhd = find(inMdia, "mdhd"))
        readTimes(bytes, *mdhd, &track->timescale, &track->duration);
    if (const Box* hdlr = find(inMdia, "hdlr")) {
        Reader reader(bytes, hdlr->payload, hdlr->end);
        if (reader.has(12)) {
            reader.skip(8);
            track->handler = reader.fourcc();
        }
    }
    const Box* minf = find(inMdia, "minf");
    if (minf == nullptr)
        return;
    std::vector<Box> inMinf = children(bytes, minf->payload, minf->end, ok);
    const Box* stbl = find(inMinf, "stbl");
    if (stbl == nullptr)
        return;
    std::vector<Box> inStbl = children(bytes, stbl->payload, stbl->end, ok);
    if (const Box* stsd = find(inStbl, "stsd")) {
        Reader reader(bytes, stsd->payload, stsd->end);
        if (reader.has(16)) {
            reader.skip(8);  // version, flags, entry count
            size_t entry = reader.at();
            reader.skip(4);
            track->codec = reader.fourcc();
            Reader fields(bytes, entry + 8, stsd->end);
            if (track->handler == "vide" && fields.has(28)) {
                fields.skip(24);
                track->width = fields.u16();
                track->height = fields.u16();
            } else if (track->handler == "soun" && fields.has(28)) {
                fields.skip(16);
                track->channels = fields.u16();
                fields.skip(6);
                track->sampleRate = fields.u32() >> 16;
            }
        }
    }
    if (const Box* stsz = find(inStbl, "stsz")) {
        Reader reader(bytes, stsz->payload, stsz->end);
        if (reader.has(12)) {
            reader.skip(8);
            track->samples = reader.u32();
        }
    }
}

}  // namespace

Mp4Summary Mp4Summary::read(const std::string& path) {
    Mp4Summary summary;
    std::string bytes;
    if (!demofiles::readFile(path, &bytes)) {
        summary.error = "cannot read the file";
        return summary;
    }
    bool ok = true;
    std::vector<Box> top = children(bytes, 0, bytes.size(), &ok);
    if (const Box* ftyp = find(top, "ftyp")) {
        if (ftyp->end - ftyp->payload >= 4)
            summary.majorBrand = bytes.substr(ftyp->payload, 4);
    }
    const Box* moov = find(top, "moov");
    if (moov == nullptr) {
        summary.error = "no moov box";
        return summary;
    }
    std::vector<Box> inMoov = children(bytes, moov->payload, moov->end, &ok);
    if (const Box* mvhd = find(inMoov, "mvhd"))
        readTimes(bytes, *mvhd, &summary.timescale, &summary.duration);
    for (const Box& box : inMoov) {
        if (box.type != "trak")
            continue;
        Mp4Track track;
        readTrack(bytes, box, &track, &ok);
        summary.tracks.push_back(track);
    }
    if (!ok) {
        summary.error = "malformed box";
        return summary;
    }
    summary.valid = !summary.tracks.empty();
    if (!summary.valid)
        summary.error = "no tracks";
    return summary;
}
