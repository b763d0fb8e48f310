#include "Mp4BoxReader.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

// Bytes between a box header and its first child, for the boxes that hold children.
bool childOffset(const std::string& type, size_t* skip) {
    static const char* const kPlain[] = {"moov", "trak", "mdia", "minf", "dinf", "stbl"};
    for (const char* plain : kPlain) {
        if (type == plain) {
            *skip = 0;
            return true;
        }
    }
    if (type == "stsd" || type == "dref") {
        *skip = 8;  // version/flags, entry count
    } else if (type == "avc1" || type == "mp4v" || type == "s263") {
        *skip = 78;  // visual sample entry fields
    } else if (type == "mp4a") {
        *skip = 28;  // audio sample entry fields
    } else {
        return false;
    }
    return true;
}

bool parseBoxes(const Bytes& file, size_t begin, size_t end, std::vector<Mp4Box>* out) {
    size_t position = begin;
    while (position + 8 <= end) {
        FieldReader header(file, position);
        Mp4Box box;
        box.offset = position;
        box.size = header.u32();
        box.type = header.text(4);
        box.bodyOffset = position + 8;
        if (box.size == 1) {
            box.size = header.u64();
            box.bodyOffset += 8;
        }
        if (box.size < box.bodyOffset - position || position + box.size > end) {
            return false;
        }
        size_t skip;
        if (childOffset(box.type, &skip) &&
            !parseBoxes(file, box.bodyOffset + skip, position + box.size, &box.children)) {
            return false;
        }
        out->push_back(box);
        position += box.size;
    }
    return position == end;
}

}  // namespace

const Mp4Box* Mp4Box::find(const std::string& path, size_t index) const {
    size_t slash = path.find('/');
    bool last = slash == std::string::npos;
    std::string first = path.substr(0, slash);
    size_t wanted = last ? index : 0;
    size_t seen = 0;
    for (const Mp4Box& child : children) {
        if (child.type != first || seen++ != wanted) {
            continue;
        }
        return last ? &child : child.find(path.substr(slash + 1), index);
    }
    return nullptr;
}

size_t Mp4Box::count(const std::string& type) const {
    size_t n = 0;
    for (const Mp4Box& child : children) {
        n += child.type == type ? 1 : 0;
    }
    return n;
}

uint32_t FieldReader::u8() {
    return mPosition < mFile.size() ? mFile[mPosition++] : 0;
}
uint32_t FieldReader::u16() {
    return u8() << 8 | u8();
}
uint32_t FieldReader::u32() {
    return u16() << 16 | u16();
}
uint64_t FieldReader::u64() {
    return static_cast<uint64_t>(u32()) << 32 | u32();
}

Bytes FieldReader::bytes(size_t count) {
    Bytes out;
    for (size_t i = 0; i < count; ++i) {
        out.push_back(static_cast<uint8_t>(u8()));
    }
    return out;
}

std::string FieldReader::text(size_t count) {
    Bytes raw = bytes(count);
    return std::string(raw.begin(), raw.end());
}

Mp4File::Mp4File(Bytes bytes) : mBytes(std::move(bytes)) {
    mRoot.size = mBytes.size();
    if (!parseBoxes(mBytes, 0, mBytes.size(), &mRoot.children)) {
        mRoot.children.clear();
    }
}

Mp4File Mp4File::read(const std::string& path) {
    Bytes bytes;
    if (FILE* file = fopen(path.c_str(), "rb")) {
        uint8_t block[65536];
        size_t got;
        while ((got = fread(block, 1, sizeof(block), file)) > 0) {
            bytes.insert(bytes.end(), block, block + got);
        }
        fclose(file);
    }
    return Mp4File(std::move(bytes));
}

Bytes Mp4File::body(const Mp4Box& box) const {
    return Bytes(mBytes.begin() + box.bodyOffset, mBytes.begin() + box.offset + box.size);
}

TrackTables Mp4File::tables(const Mp4Box& trak) const {
    TrackTables t;
    if (const Mp4Box* stts = trak.find("mdia/minf/stbl/stts")) {
        FieldReader f = fields(*stts, 4);
        for (uint32_t n = f.u32(); n > 0; --n) {
            uint32_t count = f.u32();
            t.stts.push_back({count, f.u32()});
        }
    }
    if (const Mp4Box* stss = trak.find("mdia/minf/stbl/stss")) {
        t.hasStss = true;
        FieldReader f = fields(*stss, 4);
        for (uint32_t n = f.u32(); n > 0; --n) {
            t.stss.push_back(f.u32());
        }
    }
    if (const Mp4Box* stsz = trak.find("mdia/minf/stbl/stsz")) {
        FieldReader f = fields(*stsz, 8);
        for (uint32_t n = f.u32(); n > 0; --n) {
            t.sizes.push_back(f.u32());
        }
    }
    if (const Mp4Box* stsc = trak.find("mdia/minf/stbl/stsc")) {
        FieldReader f = fields(*stsc, 4);
        for (uint32_t n = f.u32(); n > 0; --n) {
            uint32_t first = f.u32();
            uint32_t perChunk = f.u32();
            f.u32();
            t.stsc.push_back({first, perChunk});
        }
    }
    if (const Mp4Box* stco = trak.find("mdia/minf/stbl/stco")) {
        FieldReader f = fields(*stco, 4);
        for (uint32_t n = f.u32(); n > 0; --n) {
            t.chunkOffsets.push_back(f.u32());
        }
    }
    return t;
}

std::vector<Bytes> Mp4File::samples(const Mp4Box& trak) const {
    TrackTables t = tables(trak);
    std::vector<Bytes> out;
    size_t sample = 0;
    for (size_t chunk = 0; chunk < t.chunkOffsets.size(); ++chunk) {
        uint32_t perChunk = 0;
        for (const StscEntry& entry : t.stsc) {
            if (entry.firstChunk <= chunk + 1) {
                perChunk = entry.samplesPerChunk;
            }
        }
        size_t position = t.chunkOffsets[chunk];
        for (uint32_t i = 0; i < perChunk && sample < t.sizes.size(); ++i, ++sample) {
            size_t end = std::min(position + t.sizes[sample], mBytes.size());
            out.emplace_back(mBytes.begin() + position, mBytes.begin() + end);
            position = end;
        }
    }
    return out;
}
