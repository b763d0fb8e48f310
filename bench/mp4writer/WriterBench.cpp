// Benchmark: the cost of recording two hours of 25 fps video and 23.4 fps AAC through the
// writer, against plain stdio writes of the same bytes. Both go to /dev/null, so the figures
// are the writer's own CPU cost, not the storage's.
//
//   mp4writer_bench [--smoke] [seconds of recording, default 7200]
#include <fcntl.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "BenchRow.h"
#include "CmmbMPEG4Writer.h"
#include "Env.h"

namespace {

using Clock = std::chrono::steady_clock;

const uint32_t kVideoSampleBytes = 1500;  // about 300 kbit/s
const uint32_t kAudioSampleBytes = 180;   // about 35 kbit/s

struct Sample {
    const char* mime;
    int64_t timestamp;
    uint32_t length;
    bool sync;
};

// The samples of a recording of `seconds`, in timestamp order.
std::vector<Sample> schedule(long long seconds) {
    std::vector<Sample> samples;
    long long end = seconds * 22500, video = 0, audio = 0;
    int frame = 0;
    while (video < end || audio < end) {
        if (video <= audio) {
            samples.push_back({"video/avc", video, kVideoSampleBytes, frame++ % 25 == 0});
            video += 900;
        } else {
            samples.push_back({"audio/mp4a-latm", audio, kAudioSampleBytes, false});
            audio += 960;
        }
    }
    return samples;
}

double recordThroughWriter(const std::vector<Sample>& samples, _CmmbOutBuffer* buffer) {
    CmmbMediaSource video = {"video/avc", 320, 240, 25, 22500};
    CmmbMediaSource audio = {"audio/mp4a-latm", 0, 0, 24000, 24000};
    auto start = Clock::now();
    CmmbMPEG4Writer writer(open("/dev/null", O_WRONLY), Env::platform());
    writer.addSource(&video);
    writer.addSource(&audio);
    _CmmbMetaData meta = {24000, true, true};
    writer.start(&meta);
    static const uint8_t kSps[] = {0x67, 0x42, 0xC0, 0x1E, 0xDA, 0x02};
    static const uint8_t kPps[] = {0x68, 0xCE, 0x3C, 0x80};
    for (const auto& parameterSet :
         {std::make_pair(kSps, sizeof(kSps)), std::make_pair(kPps, sizeof(kPps))}) {
        buffer->mime = "video/avc";
        buffer->length = static_cast<uint32_t>(parameterSet.second);
        std::copy(parameterSet.first, parameterSet.first + parameterSet.second, buffer->data);
        writer.writeout(buffer);
    }
    for (const Sample& sample : samples) {
        buffer->mime = sample.mime;
        buffer->timestamp = sample.timestamp;
        buffer->length = sample.length;
        buffer->isSyncFrame = sample.sync;
        writer.writeout(buffer);
    }
    if (writer.stop() != 0) {
        fprintf(stderr, "the writer failed\n");
        exit(1);
    }
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double writePlainBytes(const std::vector<Sample>& samples, const _CmmbOutBuffer* buffer) {
    auto start = Clock::now();
    FILE* file = fopen("/dev/null", "wb");
    for (const Sample& sample : samples) {
        fwrite(buffer->data, 1, sample.length, file);
    }
    fclose(file);
    return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
    long long seconds = bench::isSmoke(argc, argv) ? 10 : 7200;
    for (int i = 1; i < argc; ++i) {
        if (argv[i][0] != '-')
            seconds = atoll(argv[i]);
    }
    std::vector<Sample> samples = schedule(seconds);
    std::unique_ptr<_CmmbOutBuffer> buffer(new _CmmbOutBuffer());
    buffer->data = buffer->storage;
    for (size_t i = 0; i < sizeof(buffer->storage); ++i) {
        buffer->storage[i] = static_cast<uint8_t>(i);
    }
    double bytes = 0;
    for (const Sample& sample : samples) {
        bytes += sample.length;
    }

    double plain = writePlainBytes(samples, buffer.get());
    double writer = recordThroughWriter(samples, buffer.get());
    char what[96];
    snprintf(what, sizeof(what), "MP4 writer, %lld s of samples (%.1f MB) to /dev/null", seconds,
             bytes / 1e6);
    bench::printRow(what, bytes / 1e6 / writer, "plain stdio writes of the same bytes",
                    bytes / 1e6 / plain, "MB/s");
    printf("writer cost: %.0f ns per sample\n", writer * 1e9 / static_cast<double>(samples.size()));
    return 0;
}
