// Repair records: small self-describing records the writer puts into mdat in front of each
// chunk, so that a file whose moov was never written (the process was killed) can be
// indexed again. No table of the moov points at them, so players skip them.
//
// Every record is
//   magic "TvRr" | body length (u32) | type (u8) | body | CRC-32 of type and body (u32)
// with big-endian integers. Types:
//   CONFIG (1): movie time scale (u32), 4-byte NAL lengths (u8), track count (u8), then per
//     track: kind (u8: 1 H.264, 2 AAC), width (u16), height (u16), sample rate (u32), media
//     time scale (u32), codec data length (u16) and bytes (the avcC body for H.264). Written
//     before the first chunk record and again whenever a track's codec data changed.
//   CHUNK (2): track index from 0 (u8), the relative time of the first sample in input ticks
//     (varint), the sample count (varint), then per sample varint(size << 1 | sync) and
//     varint(ticks to the next sample's time; 0 for the last). The chunk's bytes follow the
//     record at once.
// A varint is 7 bits per byte, least significant group first, the high bit set on every
// byte but the last.
#ifndef TAVO_MP4WRITER_REPAIR_RECORD_H
#define TAVO_MP4WRITER_REPAIR_RECORD_H

#include <cstddef>
#include <cstdint>
#include <vector>

enum : uint8_t { REPAIR_RECORD_CONFIG = 1, REPAIR_RECORD_CHUNK = 2 };
enum : uint8_t { REPAIR_TRACK_AVC = 1, REPAIR_TRACK_AAC = 2 };
enum : size_t {
    REPAIR_RECORD_HEADER_SIZE = 9,  // magic, length, type
    REPAIR_RECORD_TRAILER_SIZE = 4,
    REPAIR_RECORD_MAX_BODY = 16 * 1024 * 1024,
};

extern const uint8_t kRepairRecordMagic[4];

uint32_t repairRecordCrc(const uint8_t* data, size_t size);

// Builds records into a byte vector that is reused from record to record.
class RepairRecordBuilder {
public:
    // Starts a record of `type` at the end of `out`.
    void begin(std::vector<uint8_t>* out, uint8_t type);
    void u8(uint8_t value) { mOut->push_back(value); }
    void u16(uint16_t value);
    void u32(uint32_t value);
    void varint(uint64_t value);
    void bytes(const uint8_t* data, size_t size);
    // Fills in the length and appends the CRC.
    void end();

private:
    std::vector<uint8_t>* mOut = nullptr;
    size_t mStart = 0;
};

// Reads the fields of one record body; every read fails (and stays failed) past the end.
class RepairRecordReader {
public:
    RepairRecordReader(const uint8_t* data, size_t size) : mData(data), mSize(size) {}
    bool u8(uint8_t* value);
    bool u16(uint16_t* value);
    bool u32(uint32_t* value);
    bool varint(uint64_t* value);
    bool bytes(size_t size, const uint8_t** data);
    bool ok() const { return mOk; }
    // Bytes not read yet (0 once a read failed).
    size_t remaining() const { return mOk ? mSize - mPosition : 0; }

private:
    const uint8_t* mData;
    size_t mSize;
    size_t mPosition = 0;
    bool mOk = true;
};

// A record found at `position` of a file of `size` bytes: its type and body. False when
// none starts there (wrong magic, length past the end, or a CRC mismatch).
struct RepairRecordView {
    uint8_t type;
    const uint8_t* body;
    size_t bodySize;
    size_t end;  // position after the record
};
bool findRepairRecord(const uint8_t* file, size_t size, size_t position, RepairRecordView* view);

#endif  // TAVO_MP4WRITER_REPAIR_RECORD_H
