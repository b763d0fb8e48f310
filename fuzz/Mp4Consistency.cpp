#include "Mp4Consistency.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "RepairRecord.h"

namespace {

std::string describe(const char* what, size_t track) {
    return std::string(what) + " (track " + std::to_string(track + 1) + ")";
}

// The entries of a sample table whose entry count fits inside its box, so that a corrupt
// count cannot make the reader produce entries that are not in the file.
bool readTable(const Mp4File& file, const Mp4Box& trak, const std::string& type, Table* out) {
    const Mp4Box* box = trak.find("mdia/minf/stbl/" + type);
    if (box == nullptr)
        return false;
    const uint64_t header = type == "stsz" ? 12 : 8;  // version/flags (+ size), count
    const uint64_t fieldsPerEntry = type == "stts" ? 2 : type == "stsc" ? 3 : 1;
    const uint64_t body = box->offset + box->size - box->bodyOffset;
    if (body < header)
        return false;
    const uint64_t count = file.fields(*box, header - 4).u32();
    if (count * fieldsPerEntry * 4 > body - header)
        return false;
    *out = file.table(trak, type);
    return true;
}

// mdhd, tkhd and mvhd are version 0: their durations are 32-bit fields, written from a
// signed value (a track whose last sample went back in time ends up shorter than zero).
int32_t headerDuration(const Mp4File& file, const Mp4Box& box, size_t skip) {
    return static_cast<int32_t>(file.fields(box, skip).u32());
}

// Walks [from, to) of the file over whole repair records; false when other bytes lie there.
bool onlyRepairRecords(const Mp4File& file, uint64_t from, uint64_t to) {
    const Bytes& bytes = file.bytes();
    while (from < to) {
        RepairRecordView record;
        if (!findRepairRecord(bytes.data(), bytes.size(), from, &record) || record.end > to)
            return false;
        from = record.end;
    }
    return true;
}

}  // namespace

std::string checkMp4Consistency(const Mp4File& file, const Mp4ConsistencyOptions& options) {
    const Mp4Box* ftyp = file.find("ftyp");
    const Mp4Box* mdat = file.find("mdat");
    const Mp4Box* moov = file.find("moov");
    if (file.boxes().empty() || ftyp == nullptr || mdat == nullptr || moov == nullptr)
        return "the file is not a sequence of ftyp, mdat and moov boxes";
    const uint64_t mdatBegin = mdat->bodyOffset, mdatEnd = mdat->offset + mdat->size;

    const Mp4Box* mvhd = moov->find("mvhd");
    if (mvhd == nullptr)
        return "no mvhd";
    const uint64_t movieScale = file.fields(*mvhd, 12).u32();
    const int32_t movieDuration = headerDuration(file, *mvhd, 16);
    // The movie lasts as long as its longest track, and never less than nothing.
    int64_t longestTrack = 0;

    // Every chunk as (offset, bytes): mdat must hold the chunks and, between them, nothing
    // but the writer's repair records.
    std::vector<std::pair<uint64_t, uint64_t>> chunks;
    for (size_t t = 0; moov->find("trak", t) != nullptr; ++t) {
        const Mp4Box& trak = *moov->find("trak", t);
        Table stts, stsz, stsc, stco, stss;
        if (!readTable(file, trak, "stts", &stts) || !readTable(file, trak, "stsz", &stsz) ||
            !readTable(file, trak, "stsc", &stsc) || !readTable(file, trak, "stco", &stco))
            return describe("a sample table is missing or its entry count overruns its box", t);
        const bool hasStss = readTable(file, trak, "stss", &stss);

        uint64_t sttsSamples = 0;
        for (size_t i = 0; i < stts.size(); i += 2)
            sttsSamples += stts[i];
        const uint64_t stszSamples = stsz.size();

        // Samples per chunk from stsc (first chunks ascending from 1, within the chunk count),
        // walked together with the chunk offsets and sizes: each sample inside mdat.
        if (!stsc.empty() && stsc[0] != 1)
            return describe("stsc does not begin with chunk 1", t);
        uint64_t stscSamples = 0;
        for (size_t chunk = 0, entry = 0; chunk < stco.size(); ++chunk) {
            while (entry + 3 < stsc.size() && stsc[entry + 3] <= chunk + 1)
                entry += 3;
            const uint64_t perChunk = stsc.empty() ? 0 : stsc[entry + 1];
            const uint64_t chunkStart = stco[chunk];
            uint64_t position = chunkStart;
            for (uint64_t i = 0; i < perChunk; ++i, ++stscSamples) {
                if (stscSamples >= stszSamples)
                    return describe("stsc and stco describe more samples than stsz", t);
                const uint64_t size = stsz[stscSamples];
                if (position < mdatBegin || position + size > mdatEnd)
                    return describe("a sample lies outside mdat", t);
                position += size;
            }
            if (position > chunkStart)
                chunks.emplace_back(chunkStart, position - chunkStart);
        }
        for (size_t entry = 0; entry + 3 < stsc.size(); entry += 3) {
            if (stsc[entry + 3] <= stsc[entry])
                return describe("stsc first chunks are not ascending", t);
        }
        if (!stsc.empty() && stsc[stsc.size() - 3] > stco.size())
            return describe("stsc names a chunk beyond stco", t);
        if (sttsSamples != stszSamples || stscSamples != stszSamples)
            return describe("stts, stsz and stsc disagree on the number of samples", t) + ": " +
                   std::to_string(sttsSamples) + ", " + std::to_string(stszSamples) + ", " +
                   std::to_string(stscSamples);

        if (hasStss) {
            for (size_t i = 0; i < stss.size(); ++i) {
                if (stss[i] < 1 || stss[i] > stszSamples || (i > 0 && stss[i] <= stss[i - 1]))
                    return describe("stss entries are not ascending sample numbers", t);
            }
        }

        const Mp4Box* tkhd = trak.find("tkhd");
        const Mp4Box* mdhd = trak.find("mdia/mdhd");
        if (tkhd == nullptr || mdhd == nullptr)
            return describe("no tkhd or mdhd", t);
        const int32_t trackDuration = headerDuration(file, *tkhd, 20);
        const uint64_t mediaScale = file.fields(*mdhd, 12).u32();
        const int32_t mediaDuration = headerDuration(file, *mdhd, 16);
        if (trackDuration > longestTrack)
            longestTrack = trackDuration;
        // Both are one duration in ticks rounded to a whole unit of their time scale:
        // mediaDuration / mediaScale and trackDuration / movieScale each lie within half a
        // unit of it, or within one and a half units for a negative duration (the rounding
        // adds half a unit and truncates toward zero).
        if (options.checkDurations) {
            // 128 bits: a corrupt file may hold any 32-bit scales and durations.
            const __int128 difference = static_cast<__int128>(mediaDuration) * movieScale -
                                        static_cast<__int128>(trackDuration) * mediaScale;
            const __int128 bound = 3 * (static_cast<__int128>(movieScale) + mediaScale);
            if (2 * difference > bound || -2 * difference > bound)
                return describe("mdhd and tkhd durations disagree", t) + ": " +
                       std::to_string(mediaDuration) + "/" + std::to_string(mediaScale) + " and " +
                       std::to_string(trackDuration) + "/" + std::to_string(movieScale);
        }
    }
    if (options.checkDurations && movieDuration != longestTrack)
        return "the mvhd duration is not the longest tkhd duration: " +
               std::to_string(movieDuration) + " and " + std::to_string(longestTrack);
    std::sort(chunks.begin(), chunks.end());
    uint64_t position = mdatBegin;
    for (const auto& chunk : chunks) {
        if (chunk.first < position)
            return "two chunks overlap at " + std::to_string(chunk.first);
        if (!onlyRepairRecords(file, position, chunk.first))
            return "mdat holds bytes that are neither samples nor repair records at " +
                   std::to_string(position);
        position = chunk.first + chunk.second;
    }
    if (!onlyRepairRecords(file, position, mdatEnd))
        return "mdat holds bytes that are neither samples nor repair records at " +
               std::to_string(position);
    return "";
}
