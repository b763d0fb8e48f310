// A small reader for the files the writer produces: the box tree, big-endian fields, each
// track's sample tables and its samples located through them.
#ifndef TAVO_TESTS_MP4WRITER_MP4_BOX_READER_H
#define TAVO_TESTS_MP4WRITER_MP4_BOX_READER_H

#include <cstdint>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;
using Table = std::vector<uint32_t>;

struct Mp4Box {
    std::string type;
    size_t offset = 0;      // of the header in the file
    size_t size = 0;        // header and body
    size_t bodyOffset = 0;  // first byte after the header (and large size)
    std::vector<Mp4Box> children;

    // The box at a path such as "trak/mdia/mdhd" below this one; `index` picks among the
    // siblings of the last element's type. Null when absent.
    const Mp4Box* find(const std::string& path, size_t index = 0) const;
};

// Reads big-endian fields from a position on; reads past the end give zeros.
class FieldReader {
public:
    FieldReader(const Bytes& file, size_t position) : mFile(&file), mPosition(position) {}
    uint32_t u8() { return mPosition < mFile->size() ? (*mFile)[mPosition++] : 0; }
    uint32_t u16() {
        uint32_t high = u8();
        return high << 8 | u8();
    }
    uint32_t u32() {
        uint32_t high = u16();
        return high << 16 | u16();
    }
    uint64_t u64() {
        uint64_t high = u32();
        return high << 32 | u32();
    }
    std::string text(size_t count);
    void skip(size_t count) { mPosition += count; }

private:
    const Bytes* mFile;
    size_t mPosition;
};

class Mp4File {
public:
    explicit Mp4File(Bytes bytes);
    static Mp4File read(const std::string& path);

    const Bytes& bytes() const { return mBytes; }
    // Top-level boxes; empty when a size does not fit the file.
    const std::vector<Mp4Box>& boxes() const { return mRoot.children; }
    const Mp4Box* find(const std::string& path, size_t index = 0) const {
        return mRoot.find(path, index);
    }
    FieldReader fields(const Mp4Box& box, size_t skip = 0) const {
        return FieldReader(mBytes, box.bodyOffset + skip);
    }
    Bytes body(const Mp4Box& box) const;

    // The entries of one sample table of a track ("stts", "stss", "stsz", "stsc", "stco"),
    // every field of every entry in order: stts gives count, delta, count, delta...
    // Empty when the table is absent.
    Table table(const Mp4Box& trak, const std::string& type) const;
    // The bytes of every sample of a track, located through its tables.
    std::vector<Bytes> samples(const Mp4Box& trak) const;

private:
    Bytes mBytes;
    Mp4Box mRoot;
};

#endif  // TAVO_TESTS_MP4WRITER_MP4_BOX_READER_H
