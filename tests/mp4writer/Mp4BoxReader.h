// A small reader for the files the writer produces: the box tree, big-endian fields, and
// each track's samples reassembled from its stsz/stsc/stco tables.
#ifndef TAVO_TESTS_MP4WRITER_MP4_BOX_READER_H
#define TAVO_TESTS_MP4WRITER_MP4_BOX_READER_H

#include <cstdint>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

struct Mp4Box {
    std::string type;
    size_t offset = 0;      // of the header in the file
    size_t size = 0;        // header and body
    size_t bodyOffset = 0;  // first byte after the header (and large size)
    std::vector<Mp4Box> children;

    // The box at a path such as "trak/mdia/mdhd" below this one; `index` picks among the
    // siblings of the last element's type. Null when absent.
    const Mp4Box* find(const std::string& path, size_t index = 0) const;
    size_t count(const std::string& type) const;
};

// Reads big-endian fields starting at a position of the file.
class FieldReader {
public:
    FieldReader(const Bytes& file, size_t position) : mFile(file), mPosition(position) {}
    uint32_t u8();
    uint32_t u16();
    uint32_t u32();
    uint64_t u64();
    Bytes bytes(size_t count);
    std::string text(size_t count);
    void skip(size_t count) { mPosition += count; }
    size_t position() const { return mPosition; }

private:
    const Bytes& mFile;
    size_t mPosition;
};

struct SttsEntry {
    uint32_t count;
    uint32_t delta;
    bool operator==(const SttsEntry& other) const {
        return count == other.count && delta == other.delta;
    }
};

struct StscEntry {
    uint32_t firstChunk;
    uint32_t samplesPerChunk;
    bool operator==(const StscEntry& other) const {
        return firstChunk == other.firstChunk && samplesPerChunk == other.samplesPerChunk;
    }
};

struct TrackTables {
    std::vector<SttsEntry> stts;
    std::vector<uint32_t> stss;
    bool hasStss = false;
    std::vector<uint32_t> sizes;
    std::vector<StscEntry> stsc;
    std::vector<uint32_t> chunkOffsets;
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

    TrackTables tables(const Mp4Box& trak) const;
    // The bytes of every sample of a track, located through its tables.
    std::vector<Bytes> samples(const Mp4Box& trak) const;

private:
    Bytes mBytes;
    Mp4Box mRoot;
};

#endif  // TAVO_TESTS_MP4WRITER_MP4_BOX_READER_H
