// A fuzz input read front to back: big-endian integers and runs of bytes. Reads past the end
// give zeros; a run that goes past the end is padded with the reader's filler byte, so that
// a short input still decodes to a complete operation.
#ifndef TAVO_FUZZ_INPUT_BYTES_H
#define TAVO_FUZZ_INPUT_BYTES_H

#include <cstddef>
#include <cstdint>
#include <cstring>

class InputBytes {
public:
    InputBytes(const uint8_t* data, size_t size, uint8_t filler)
        : mData(data), mSize(size), mFiller(filler) {}

    bool empty() const { return mPosition >= mSize; }
    uint8_t u8() { return mPosition < mSize ? mData[mPosition++] : 0; }
    uint16_t u16() {
        uint16_t high = u8();
        return static_cast<uint16_t>(high << 8 | u8());
    }
    uint32_t u32() {
        uint32_t high = u16();
        return high << 16 | u16();
    }
    // `count` bytes into `out`: what the input still holds, then filler.
    void bytes(uint8_t* out, size_t count) {
        size_t available = mPosition < mSize ? mSize - mPosition : 0;
        size_t taken = count < available ? count : available;
        memcpy(out, mData + mPosition, taken);
        memset(out + taken, mFiller, count - taken);
        mPosition += taken;
    }

private:
    const uint8_t* mData;
    size_t mSize;
    uint8_t mFiller;
    size_t mPosition = 0;
};

#endif  // TAVO_FUZZ_INPUT_BYTES_H
