#include "ElementaryStreams.h"

namespace {

// Position of the next 00 00 01 at or after `from`; `size` when there is none.
size_t findStartCode(const uint8_t* data, size_t size, size_t from) {
    for (size_t i = from; i + 2 < size; ++i) {
        if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1)
            return i;
    }
    return size;
}

const size_t kAdtsHeader = 7;
const size_t kAdtsHeaderWithCrc = 9;

}  // namespace

std::vector<ByteRange> splitAnnexBUnits(const uint8_t* data, size_t size) {
    std::vector<ByteRange> units;
    size_t start = findStartCode(data, size, 0);
    while (start < size) {
        const size_t payload = start + 3;
        const size_t next = findStartCode(data, size, payload);
        size_t end = next;
        while (end > payload && data[end - 1] == 0)
            --end;
        if (end > payload)
            units.push_back({payload, end - payload});
        start = next;
    }
    return units;
}

AdtsSplit splitAdtsFrames(const uint8_t* data, size_t size, std::vector<ByteRange>* frames,
                          std::vector<size_t>* headers) {
    size_t pos = 0;
    while (pos < size) {
        if (pos + kAdtsHeader > size)
            return {AdtsSplit::TRUNCATED, pos};
        const uint8_t* h = data + pos;
        if (h[0] != 0xFF || (h[1] & 0xF0) != 0xF0)
            return {AdtsSplit::SYNC_LOST, pos};
        const size_t headerLength = (h[1] & 0x01) != 0 ? kAdtsHeader : kAdtsHeaderWithCrc;
        const size_t frameLength = (static_cast<size_t>(h[3] & 0x03) << 11) |
                                   (static_cast<size_t>(h[4]) << 3) | (h[5] >> 5);
        if (frameLength < headerLength || pos + frameLength > size)
            return {AdtsSplit::TRUNCATED, pos};
        frames->push_back({pos + headerLength, frameLength - headerLength});
        if (headers != nullptr)
            headers->push_back(pos);
        pos += frameLength;
    }
    return {AdtsSplit::COMPLETE, pos};
}
