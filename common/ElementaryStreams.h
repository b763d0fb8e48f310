// Splitting of the two elementary stream formats the system carries: H.264 in Annex B
// (units separated by 00 00 01 or 00 00 00 01 start codes) and AAC in ADTS (each frame
// behind a 7-byte header, 9 with CRC). Used by the broadcast simulator to cut its content
// and by the tests to read their media clips. Results are byte ranges into the caller's
// data; nothing is copied.
#ifndef TAVO_COMMON_ELEMENTARY_STREAMS_H
#define TAVO_COMMON_ELEMENTARY_STREAMS_H

#include <cstddef>
#include <cstdint>
#include <vector>

struct ByteRange {
    size_t offset;
    size_t length;
};

// The NAL units of an Annex B stream, each without its start code. Zero bytes at the end of
// a unit (the first byte of a following 4-byte start code, or trailing padding) do not
// belong to it; units left empty are skipped. Bytes before the first start code are ignored.
std::vector<ByteRange> splitAnnexBUnits(const uint8_t* data, size_t size);

struct AdtsSplit {
    enum Status { COMPLETE, SYNC_LOST, TRUNCATED };
    Status status;
    // Where splitting stopped: the size of the stream when every byte was consumed, else the
    // start of the header that is missing, malformed, or whose frame runs past the end.
    size_t stoppedAt;
};

// The raw AAC frames of an ADTS stream (headers removed), up to the first header that is
// malformed or whose frame runs past the end. Fewer than 7 bytes left at the end count as
// TRUNCATED. headers, when given, receives the offset of each frame's header.
AdtsSplit splitAdtsFrames(const uint8_t* data, size_t size, std::vector<ByteRange>* frames,
                          std::vector<size_t>* headers = nullptr);

#endif  // TAVO_COMMON_ELEMENTARY_STREAMS_H
