// The live data path's cost per multiplex frame: a 62.5 KB frame of realistic fragments (13
// NAL units in 1,000-byte pieces, 35 AAC frames of 300 bytes) delivered through the engine's
// agent callbacks into two sessions' shared buffers, against memcpy of the same fragments
// into two buffers, which is the least any data path must do.
//
// A second row isolates the frame bracket: an empty frame (start and end only) into the
// same two sessions, against the posts of 4-byte shared semaphores in a shared page that
// every frame end makes (each session's buffer lock and its data-available signal, posted
// together), which no data path of this buffer protocol can avoid.
//
// Times are CPU time of the delivering thread: nothing here waits, and other load on the
// machine then does not count.
//
//   datapath_benchmark [--smoke] [frames]
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "BenchRow.h"
#include "CmmbSharedSemaphore.h"
#include "EngineDataPath.h"
#include "SharedSemaphorePair.h"
#include "UniqueHandle.h"

namespace {

const int kChannel = 40;
const int kNalUnits = 13, kPiecesPerNal = 4;
const size_t kPieceBytes = 1000;
const int kAacFrames = 35;
const size_t kAacBytes = 300;

struct Fragment {
    Bytes bytes;
    Pos pos;
};

// One frame's video pieces: each NAL unit a START piece (beginning with a 4-byte start code),
// MIDDLE pieces and an END piece, 1,000 bytes each.
std::vector<Fragment> videoPieces() {
    std::vector<Fragment> pieces;
    for (int unit = 0; unit < kNalUnits; ++unit) {
        for (int piece = 0; piece < kPiecesPerNal; ++piece) {
            Pos pos = piece == 0                   ? MBBMSAgent::NAL_FRAGMENT_START
                      : piece == kPiecesPerNal - 1 ? MBBMSAgent::NAL_FRAGMENT_END
                                                   : MBBMSAgent::NAL_FRAGMENT_MIDDLE;
            Bytes bytes = piece == 0 ? nalUnit(4, unit == 0 ? 0x65 : 0x41, kPieceBytes)
                                     : pattern(kPieceBytes, static_cast<unsigned char>(piece));
            pieces.push_back({bytes, pos});
        }
    }
    return pieces;
}

// The agent interface takes non-const data pointers.
double engineMicrosPerFrame(EngineDataPath& bench, std::vector<Fragment>& video, Bytes& audio,
                            int frames) {
    MBBMSAgentCallback* agentSide = bench.agent().callback();
    const double begin = bench::threadCpuSeconds();
    for (int frame = 0; frame < frames; ++frame) {
        agentSide->onOutputAVStart(kChannel, nullptr, 0);
        for (Fragment& piece : video)
            agentSide->onClearVideoNalData(kChannel, frame, 0, piece.bytes.data(),
                                           static_cast<unsigned short>(piece.bytes.size()),
                                           piece.pos);
        for (int i = 0; i < kAacFrames; ++i)
            agentSide->onClearAudioAacFrame(kChannel, frame, i * 960, audio.data(),
                                            static_cast<unsigned short>(audio.size()));
        agentSide->onOutputAVEnd(kChannel, false);
    }
    return (bench::threadCpuSeconds() - begin) * 1e6 / frames;
}

double memcpyMicrosPerFrame(const std::vector<Fragment>& video, const Bytes& audio, int frames) {
    std::vector<unsigned char> session0(CMMB_PAYLOAD_LIMIT), session1(CMMB_PAYLOAD_LIMIT);
    const double begin = bench::threadCpuSeconds();
    for (int frame = 0; frame < frames; ++frame) {
        for (std::vector<unsigned char>* target : {&session0, &session1}) {
            size_t at = 0;
            for (const Fragment& piece : video) {
                memcpy(target->data() + at, piece.bytes.data(), piece.bytes.size());
                at += piece.bytes.size();
            }
            for (int i = 0; i < kAacFrames; ++i) {
                memcpy(target->data() + at, audio.data(), audio.size());
                at += audio.size();
            }
            bench::keep(target->data());
        }
    }
    return (bench::threadCpuSeconds() - begin) * 1e6 / frames;
}

double emptyFrameMicros(EngineDataPath& bench, int frames) {
    MBBMSAgentCallback* agentSide = bench.agent().callback();
    const double begin = bench::threadCpuSeconds();
    for (int frame = 0; frame < frames; ++frame) {
        agentSide->onOutputAVStart(kChannel, nullptr, 0);
        agentSide->onOutputAVEnd(kChannel, false);
    }
    return (bench::threadCpuSeconds() - begin) * 1e6 / frames;
}

// Per frame, two sessions' lock and signal posted together on semaphores in a shared page,
// each taken back without waiting so that the counts stay small; -1 when no shared page can
// be made.
double semaphorePostMicros(int frames) {
    const size_t pageSize = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void* page = mmap(nullptr, pageSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED)
        return -1;
    const UniqueMapping mapping(Mapping{page, pageSize});
    CmmbSharedSemaphore* sems = static_cast<CmmbSharedSemaphore*>(page);
    for (int i = 0; i < 4; ++i)
        cmmb_sem_init(&sems[i], 0);
    const double begin = bench::threadCpuSeconds();
    for (int frame = 0; frame < frames; ++frame) {
        for (int session = 0; session < 2; ++session)
            postSemaphorePair(&sems[2 * session], &sems[2 * session + 1]);
        for (int i = 0; i < 4; ++i)
            cmmb_sem_trywait(&sems[i]);
    }
    return (bench::threadCpuSeconds() - begin) * 1e6 / frames;
}

}  // namespace

int main(int argc, char** argv) {
    const bool smoke = bench::isSmoke(argc, argv);
    int frames = smoke ? 50 : 20000;
    for (int i = 1; i < argc; ++i) {
        if (argv[i][0] != '-')
            frames = atoi(argv[i]);
    }
    EngineDataPath bench("none");
    if (!bench.setUpError().empty()) {
        fprintf(stderr, "set-up failed: %s\n", bench.setUpError().c_str());
        return 1;
    }
    if (bench.startService(0, 7, kChannel) != 0 || bench.startService(1, 7, kChannel) != 0) {
        fprintf(stderr, "could not start the sessions\n");
        return 1;
    }
    std::vector<Fragment> video = videoPieces();
    Bytes audio = pattern(kAacBytes);

    engineMicrosPerFrame(bench, video, audio, frames / 10 + 1);  // warm-up
    memcpyMicrosPerFrame(video, audio, frames / 10 + 1);
    const double engine = engineMicrosPerFrame(bench, video, audio, frames);
    const double baseline = memcpyMicrosPerFrame(video, audio, frames);
    const size_t stored = bench.buffer(0)->dataLength;
    if (stored != kNalUnits * (kPiecesPerNal * kPieceBytes - 4) + kAacFrames * (kAacBytes + 7)) {
        fprintf(stderr, "unexpected payload in the buffer: %zu bytes\n", stored);
        return 1;
    }
    bench::printRow("62.5 KB multiplex frame into two sessions", engine,
                    "memcpy of the fragments twice", baseline, "us/frame");

    emptyFrameMicros(bench, frames / 10 + 1);  // warm-up
    const double bracket = emptyFrameMicros(bench, frames);
    const double posts = semaphorePostMicros(frames);
    bench::printRow("empty frame into two sessions (start and end only)", bracket,
                    "two sessions' lock and signal posts", posts, "us/frame");
    return 0;
}
