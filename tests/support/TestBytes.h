// Byte strings the data-path suites feed the engine: running patterns and NAL units.
#ifndef TAVO_TESTS_SUPPORT_TEST_BYTES_H
#define TAVO_TESTS_SUPPORT_TEST_BYTES_H

#include <cstddef>
#include <vector>

using Bytes = std::vector<unsigned char>;

// `count` bytes of a running pattern beginning at `seed`.
inline Bytes pattern(size_t count, unsigned char seed = 0) {
    Bytes bytes(count);
    for (size_t i = 0; i < count; ++i)
        bytes[i] = static_cast<unsigned char>(seed + i * 7);
    return bytes;
}

// `count` bytes: a 3- or 4-byte start code, the NAL header byte, then a running pattern.
inline Bytes nalUnit(int startCodeLength, unsigned char header, size_t count,
                     unsigned char seed = 0) {
    Bytes bytes = pattern(count, seed);
    for (int i = 0; i < startCodeLength; ++i)
        bytes[static_cast<size_t>(i)] = i + 1 == startCodeLength;
    bytes[static_cast<size_t>(startCodeLength)] = header;
    return bytes;
}

#endif  // TAVO_TESTS_SUPPORT_TEST_BYTES_H
