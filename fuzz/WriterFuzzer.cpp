// CmmbMPEG4Writer driven directly with random sample sequences: track sets (including
// unsupported types), start parameters, interleave durations, file size limits, samples of
// any size, time and sync flag, H.264 parameter sets of any content, pause and resume. Every
// file that stop reports complete must pass the table and duration checks.
//
// Input: four configuration bytes, then operations (see the switch below).
// TAVO_FUZZ_WILD_TICKS=1 lets timestamps take any 64-bit value; by default they stay within
// +-2^26 ticks (about 50 minutes), where the 32-bit header durations cannot wrap.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "CmmbMPEG4Writer.h"
#include "Env.h"
#include "FuzzScratchFile.h"
#include "InputBytes.h"
#include "Mp4BoxReader.h"
#include "Mp4Consistency.h"

namespace {

const char* const kAvc = "video/avc";
const char* const kAac = "audio/mp4a-latm";

struct TrackSet {
    const char* mimes[2];
    int count;
};

const TrackSet kTrackSets[8] = {
    {{kAvc, nullptr}, 1},
    {{kAac, nullptr}, 1},
    {{kAvc, kAac}, 2},
    {{kAac, kAvc}, 2},
    {{"video/mp4v-es", kAac}, 2},
    {{"video/3gpp", nullptr}, 1},
    {{"VIDEO/AVC", "audio/aac"}, 2},
    {{"video/unknown", kAac}, 2},
};
const int32_t kTimeScales[8] = {22500, 24000, 48000, 90000, 1000, 600, 1, 96000};
const uint32_t kInterleaves[4] = {22500, 0, 1, 45000};
const long long kLimits[8] = {0, 0, 0, 3000, 20000, 200000, 1000000, 3000000000LL};
const int64_t kTickSteps[4] = {1, 40, 900, 22500};

bool wildTicks() {
    static const bool wild = getenv("TAVO_FUZZ_WILD_TICKS") != nullptr;
    return wild;
}

void failWith(const std::string& problem, const std::string& path) {
    fprintf(stderr, "inconsistent recording (%s): %s\n", path.c_str(), problem.c_str());
    abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The writer logs every stop; keep that off the fuzzer's output.
    setenv("TAVO_LOG_FILE", "/dev/null", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static FuzzScratchFile file("writer");
    static std::unique_ptr<_CmmbOutBuffer> sample(new _CmmbOutBuffer());
    InputBytes in(data, size, 0);

    const uint8_t config = in.u8(), scales = in.u8(), audioAndInterleave = in.u8(), limit = in.u8();
    const TrackSet& set = kTrackSets[config & 7];
    CmmbMediaSource sources[2];
    for (int i = 0; i < set.count; ++i) {
        bool audio = strncmp(set.mimes[i], "audio", 5) == 0;
        int32_t scale = kTimeScales[(audio ? audioAndInterleave : scales >> 3) & 7];
        sources[i] = CmmbMediaSource{set.mimes[i], audio ? 0 : 320, audio ? 0 : 240,
                                     audio ? scale : 25, scale};
    }
    _CmmbMetaData meta = {kTimeScales[scales & 7], (config & 8) != 0, (config & 16) != 0};

    std::unique_ptr<CmmbMPEG4Writer> writer(
        new CmmbMPEG4Writer(file.openEmpty().release(), Env::platform()));
    for (int i = 0; i < set.count; ++i)
        writer->addSource(&sources[i]);
    writer->setInterleaveDuration(kInterleaves[(audioAndInterleave >> 3) & 3]);
    writer->setMaxFileSize(kLimits[limit & 7]);
    if (writer->start(&meta) != 0)
        return 0;

    int64_t now = 0;
    for (int operations = 0; !in.empty() && operations < 4096; ++operations) {
        const uint8_t op = in.u8();
        switch (op & 7) {
            case 4:
                writer->pause();
                break;
            case 5:
                writer->start(&meta);  // resume
                break;
            case 6:
                if (writer->queryMoovLength() < 0) {
                    fprintf(stderr, "negative moov estimate\n");
                    abort();
                }
                break;
            default: {  // a sample: track and sync flag, time step, size, bytes
                const uint8_t what = in.u8();
                const int16_t step = static_cast<int16_t>(in.u16());
                if (wildTicks() && (what & 0x80) != 0) {
                    uint64_t raw = 0;
                    for (int i = 0; i < 8; ++i)
                        raw = raw << 8 | in.u8();
                    now = static_cast<int64_t>(raw);
                } else {
                    now += step * kTickSteps[(what >> 2) & 3];
                    if (!wildTicks() && (now > (1 << 26) || now < -(1 << 26)))
                        now = 0;
                }
                uint16_t length = in.u16();
                if (length > CMMB_SAMPLE_STORAGE_SIZE)
                    length = CMMB_SAMPLE_STORAGE_SIZE;
                sample->mime = set.mimes[(what & 1) % set.count];
                sample->timestamp = now;
                sample->length = length;
                sample->data = sample->storage;
                in.bytes(sample->storage, length);
                sample->isSyncFrame = (what & 2) != 0;
                writer->writeout(sample.get());
                break;
            }
        }
    }
    const int stopped = writer->stop();
    writer.reset();
    if (stopped == 0) {
        Mp4ConsistencyOptions options;
        options.checkDurations = !wildTicks();
        std::string problem = checkMp4Consistency(Mp4File::read(file.path()), options);
        if (!problem.empty())
            failWith(problem, file.path());
    }
    return 0;
}
