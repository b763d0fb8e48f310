// Benchmark of the live data path: frames of a typical service (25 NAL units and 23 AAC
// frames, about 40 KB) pushed through the engine's agent callbacks into two sessions'
// buffers. Prints the time per frame and the payload throughput. Not a test: run it by hand,
// e.g. build-*/bench/datapath/datapath_benchmark [frames].
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "EngineDataPath.h"

int main(int argc, char** argv) {
    const int frames = argc > 1 ? atoi(argv[1]) : 20000;
    EngineDataPath bench("none");
    if (!bench.setUpError().empty()) {
        fprintf(stderr, "set-up failed: %s\n", bench.setUpError().c_str());
        return 1;
    }
    if (bench.startService(0, 7, 40) != 0 || bench.startService(1, 7, 40) != 0) {
        fprintf(stderr, "could not start the sessions\n");
        return 1;
    }
    MBBMSAgentCallback* agentSide = bench.agent->callback();
    Bytes video = nalUnit(4, 0x41, 1300), audio = pattern(300);
    size_t payloadPerFrame = 0;

    const auto begin = std::chrono::steady_clock::now();
    for (int frame = 0; frame < frames; ++frame) {
        agentSide->onOutputAVStart(40, nullptr, 0);
        for (int i = 0; i < 25; ++i)
            agentSide->onClearVideoNalData(40, frame, i, video.data(), video.size(),
                                           MBBMSAgent::NAL_FRAGMENT_COMPLETE);
        for (int i = 0; i < 23; ++i)
            agentSide->onClearAudioAacFrame(40, frame, i, audio.data(), audio.size());
        payloadPerFrame = bench.buffer(0)->dataLength;
        agentSide->onOutputAVEnd(40, false);
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();

    const double perFrameUs = seconds * 1e6 / frames;
    const double megabytes = 2.0 * static_cast<double>(payloadPerFrame) * frames / 1e6;
    printf("frames: %d, payload per frame and session: %zu bytes\n", frames, payloadPerFrame);
    printf("time per frame (2 sessions): %.2f us, payload written: %.1f MB/s\n", perFrameUs,
           megabytes / seconds);
    return 0;
}
