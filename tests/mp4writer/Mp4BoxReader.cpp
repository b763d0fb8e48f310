#include "Mp4BoxReader.h"

#include <algorithm>
#include <map>

#include "MediaFiles.h"

namespace {

// Bytes between a box header and its first child, for the boxes that hold children.
bool childOffset(const std::string& type, size_t* skip) {
    static const std::map<std::string, size_t> kContainers = {
        {"moov", 0},  {"trak", 0},  {"mdia", 0},  {"minf", 0},
        {"dinf", 0},  {"stbl", 0},  {"stsd", 8},  {"dref", 8},  // version/flags, entry count
        {"avc1", 78}, {"mp4v", 78}, {"s263", 78},               // visual sample entry fields
        {"mp4a", 28}};                                          // audio sample entry fields
    auto found = kContainers.find(type);
    if (found == kContainers.end())
        return false;
    *skip = found->second;
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
        size_t skip;
        if (box.size < box.bodyOffset - position || position + box.size > end ||
            (childOffset(box.type, &skip) &&
             !parseBoxes(file, box.bodyOffset + skip, position + box.size, &box.children))) {
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
    size_t seen = 0;
    for (const Mp4Box& child : children) {
        if (child.type == path.substr(0, slash) && seen++ == (last ? index : 0))
            return last ? &child : child.find(path.substr(slash + 1), index);
    }
    return nullptr;
}

std::string FieldReader::text(size_t count) {
    std::string out;
    while (count-- > 0)
        out.push_back(static_cast<char>(u8()));
    return out;
}

Mp4File::Mp4File(Bytes bytes) : mBytes(std::move(bytes)) {
    if (!parseBoxes(mBytes, 0, mBytes.size(), &mRoot.children))
        mRoot.children.clear();
}

Mp4File Mp4File::read(const std::string& path) {
    return Mp4File(readMediaFile(path));
}

Bytes Mp4File::body(const Mp4Box& box) const {
    return Bytes(mBytes.begin() + box.bodyOffset, mBytes.begin() + box.offset + box.size);
}

Table Mp4File::table(const Mp4Box& trak, const std::string& type) const {
    Table entries;
    const Mp4Box* box = trak.find("mdia/minf/stbl/" + type);
    if (box == nullptr)
        return entries;
    // After version/flags (and stsz's common sample size) comes the entry count.
    FieldReader f = fields(*box, type == "stsz" ? 8 : 4);
    uint32_t fieldsPerEntry = type == "stts" ? 2 : type == "stsc" ? 3 : 1;
    for (uint32_t n = f.u32() * fieldsPerEntry; n > 0; --n)
        entries.push_back(f.u32());
    return entries;
}

std::vector<Bytes> Mp4File::samples(const Mp4Box& trak) const {
    Table sizes = table(trak, "stsz"), stsc = table(trak, "stsc"), offsets = table(trak, "stco");
    std::vector<Bytes> out;
    size_t sample = 0;
    for (size_t chunk = 0; chunk < offsets.size(); ++chunk) {
        uint32_t perChunk = 0;
        for (size_t entry = 0; entry + 1 < stsc.size(); entry += 3)
            perChunk = stsc[entry] <= chunk + 1 ? stsc[entry + 1] : perChunk;
        size_t position = offsets[chunk];
        for (uint32_t i = 0; i < perChunk && sample < sizes.size(); ++i, ++sample) {
            size_t end = std::min<size_t>(position + sizes[sample], mBytes.size());
            out.emplace_back(mBytes.begin() + position, mBytes.begin() + end);
            position = end;
        }
    }
    return out;
}
