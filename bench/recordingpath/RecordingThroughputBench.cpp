// Recording throughput and heap use: real H.264 and AAC (the simulator's service 101, looped)
// delivered as one multiplex frame per second through the engine's agent callbacks into a
// session that records to a file, from startRecording to the end of stopRecording (moov and
// fsync included). Baselines, each ending with the file synced like the recording:
//   - a plain write of the same elementary streams (Annex B H.264, ADTS AAC) into one file;
//   - ffmpeg -c copy of those elementary streams into an MP4 (when ffmpeg is installed;
//     its process start-up is included).
// Throughput counts the media bytes (NAL units and AAC frames without start codes or ADTS
// headers) for all three. Heap use counts every byte requested from the C library's
// allocator (operator new included) during the recording, per recorded sample, against the
// 4 bytes per sample that the file's own sample-size table holds.
//
//   recording_throughput_benchmark [--smoke] [seconds of content, default 600]
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "BenchRow.h"
#include "EngineDataPath.h"
#include "MediaFiles.h"
#include "UniqueHandle.h"

namespace {

std::atomic<bool> gCounting{false};
std::atomic<long long> gHeapBytes{0};

}  // namespace

extern "C" void* __libc_malloc(size_t size);
extern "C" void* __libc_calloc(size_t count, size_t size);
extern "C" void* __libc_realloc(void* pointer, size_t size);
extern "C" void* malloc(size_t size) {
    if (gCounting.load(std::memory_order_relaxed))
        gHeapBytes += static_cast<long long>(size);
    return __libc_malloc(size);
}
extern "C" void* calloc(size_t count, size_t size) {
    if (gCounting.load(std::memory_order_relaxed))
        gHeapBytes += static_cast<long long>(count * size);
    return __libc_calloc(count, size);
}
extern "C" void* realloc(void* pointer, size_t size) {
    if (gCounting.load(std::memory_order_relaxed))
        gHeapBytes += static_cast<long long>(size);
    return __libc_realloc(pointer, size);
}

namespace {

const int kChannel = 40;
const int kPicturesPerSecond = 25;
const int kTicksPerSecond = 22500, kTicksPerPicture = 900, kTicksPerAacFrame = 960;

// One second of content as the agent delivers it.
struct SecondOfContent {
    std::vector<std::vector<Bytes>> pictures;  // NAL units with their 4-byte start code
    std::vector<Bytes> aacFrames;              // raw
    unsigned long tsBase = 0;
    std::vector<unsigned long> pictureTimes, aacTimes;  // relative to tsBase
};

Bytes withStartCode(const MediaBytes& unit) {
    Bytes bytes = {0, 0, 0, 1};
    bytes.insert(bytes.end(), unit.begin(), unit.end());
    return bytes;
}

// ADTS header for a raw AAC-LC frame, 24,000 Hz, two channels.
Bytes adtsHeader(size_t frameBytes) {
    const size_t length = frameBytes + 7;
    return {0xFF,
            0xF1,
            static_cast<unsigned char>((1 << 6) | (6 << 2)),
            static_cast<unsigned char>((2 << 6) | ((length >> 11) & 0x03)),
            static_cast<unsigned char>((length >> 3) & 0xFF),
            static_cast<unsigned char>(((length & 0x07) << 5) | 0x1F),
            0xFC};
}

class Content {
public:
    bool load(const std::string& dir) {
        mPictures = readAnnexBPictures(dir + "/101.h264");
        mAac = readAdtsFrames(dir + "/101.aac");
        return !mPictures.empty() && !mAac.empty();
    }

    // `seconds` of content, the loops repeated; also the elementary streams and the media
    // byte and sample counts.
    std::vector<SecondOfContent> schedule(int seconds, Bytes* h264, Bytes* aac, double* mediaBytes,
                                          long* samples) const {
        std::vector<SecondOfContent> out(static_cast<size_t>(seconds));
        long aacIndex = 0;
        for (int s = 0; s < seconds; ++s) {
            SecondOfContent& second = out[static_cast<size_t>(s)];
            second.tsBase = static_cast<unsigned long>(s) * kTicksPerSecond;
            for (int p = 0; p < kPicturesPerSecond; ++p) {
                const H264Picture& picture =
                    mPictures[static_cast<size_t>(s * kPicturesPerSecond + p) % mPictures.size()];
                std::vector<Bytes> units;
                for (const MediaBytes& unit : picture.nalUnits) {
                    units.push_back(withStartCode(unit));
                    h264->insert(h264->end(), units.back().begin(), units.back().end());
                    *mediaBytes += static_cast<double>(unit.size());
                    ++*samples;
                }
                second.pictures.push_back(units);
                second.pictureTimes.push_back(static_cast<unsigned long>(p) * kTicksPerPicture);
            }
            // Every AAC frame that starts within this second.
            const long secondEnd = static_cast<long>(s + 1) * kTicksPerSecond;
            for (; aacIndex * kTicksPerAacFrame < secondEnd; ++aacIndex) {
                const MediaBytes& frame = mAac[static_cast<size_t>(aacIndex) % mAac.size()];
                second.aacFrames.push_back(frame);
                second.aacTimes.push_back(static_cast<unsigned long>(aacIndex * kTicksPerAacFrame) -
                                          second.tsBase);
                Bytes header = adtsHeader(frame.size());
                aac->insert(aac->end(), header.begin(), header.end());
                aac->insert(aac->end(), frame.begin(), frame.end());
                *mediaBytes += static_cast<double>(frame.size());
                ++*samples;
            }
        }
        return out;
    }

private:
    std::vector<H264Picture> mPictures;
    std::vector<MediaBytes> mAac;
};

// Seconds from startRecording to the end of stopRecording; -1 on failure.
double recordThroughEngine(EngineDataPath& bench, std::vector<SecondOfContent>& content,
                           const std::string& path) {
    MBBMSAgentCallback* agentSide = bench.agent().callback();
    UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
    if (!fd.valid())
        return -1;
    gHeapBytes = 0;
    gCounting = true;
    const double begin = bench::nowSeconds();
    if (bench.engine().startRecording(0, fd.get()) != 0)
        return -1;
    for (SecondOfContent& second : content) {
        agentSide->onOutputAVStart(kChannel, nullptr, 0);
        for (size_t p = 0; p < second.pictures.size(); ++p) {
            for (Bytes& unit : second.pictures[p])
                agentSide->onClearVideoNalData(
                    kChannel, second.tsBase, second.pictureTimes[p], unit.data(),
                    static_cast<unsigned short>(unit.size()), MBBMSAgent::NAL_FRAGMENT_COMPLETE);
        }
        for (size_t a = 0; a < second.aacFrames.size(); ++a)
            agentSide->onClearAudioAacFrame(
                kChannel, second.tsBase, second.aacTimes[a], second.aacFrames[a].data(),
                static_cast<unsigned short>(second.aacFrames[a].size()));
        agentSide->onOutputAVEnd(kChannel, false);
    }
    const int stopped = bench.engine().stopRecording(0);
    const double elapsed = bench::nowSeconds() - begin;
    gCounting = false;
    fd.reset();
    struct stat st;
    if (stopped != 0 || stat(path.c_str(), &st) != 0 || st.st_size == 0)
        return -1;
    return elapsed;
}

// Writes the buffers one after the other into one file in 1 MiB writes, then syncs it.
bool writeAndSync(const std::string& path, const std::vector<const Bytes*>& buffers) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0)
        return false;
    const size_t kBlock = 1 << 20;
    bool ok = true;
    for (const Bytes* bytes : buffers) {
        for (size_t at = 0; ok && at < bytes->size(); at += kBlock) {
            size_t n = std::min(kBlock, bytes->size() - at);
            ok = write(fd, bytes->data() + at, n) == static_cast<ssize_t>(n);
        }
    }
    ok = fsync(fd) == 0 && ok;
    return close(fd) == 0 && ok;
}

bool syncFile(const std::string& path) {
    int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0)
        return false;
    bool ok = fsync(fd) == 0;
    return close(fd) == 0 && ok;
}

}  // namespace

int main(int argc, char** argv) {
    const bool smoke = bench::isSmoke(argc, argv);
    int seconds = smoke ? 5 : 600;
    for (int i = 1; i < argc; ++i) {
        if (argv[i][0] != '-')
            seconds = atoi(argv[i]);
    }
    Content source;
    if (!source.load(TAVO_BENCH_CONTENT_DIR)) {
        fprintf(stderr, "cannot read the content in %s\n", TAVO_BENCH_CONTENT_DIR);
        return 1;
    }
    Bytes h264, aac;
    double mediaBytes = 0;
    long samples = 0;
    std::vector<SecondOfContent> content =
        source.schedule(seconds, &h264, &aac, &mediaBytes, &samples);

    EngineDataPath bench("none", false);
    if (!bench.setUpError().empty() || bench.startService(0, 101, kChannel) != 0) {
        fprintf(stderr, "set-up failed: %s\n", bench.setUpError().c_str());
        return 1;
    }
    const std::string dir = bench.root().resolve("/sdcard");
    const double engineSeconds = recordThroughEngine(bench, content, dir + "/engine.3gp");
    if (engineSeconds <= 0) {
        fprintf(stderr, "the recording failed\n");
        return 1;
    }
    const double heapPerSample = static_cast<double>(gHeapBytes.load()) / samples;

    const double plainBegin = bench::nowSeconds();
    if (!writeAndSync(dir + "/plain.bin", {&h264, &aac})) {
        fprintf(stderr, "the plain write failed\n");
        return 1;
    }
    const double plainSeconds = bench::nowSeconds() - plainBegin;

    const double engineRate = mediaBytes / engineSeconds / 1e6;
    char what[96];
    snprintf(what, sizeof(what), "recording %d s of H.264/AAC (%.1f MB)", seconds,
             mediaBytes / 1e6);
    bench::printRow(what, engineRate, "plain write of the same streams",
                    mediaBytes / plainSeconds / 1e6, "MB/s");

    if (system("command -v ffmpeg >/dev/null 2>&1") == 0) {
        // ffmpeg's input files, written before its clock starts.
        if (!writeAndSync(dir + "/es.h264", {&h264}) || !writeAndSync(dir + "/es.aac", {&aac})) {
            fprintf(stderr, "cannot write the elementary streams\n");
            return 1;
        }
        const std::string command = "ffmpeg -nostdin -v error -y -framerate 25 -f h264 -i '" + dir +
                                    "/es.h264' -f aac -i '" + dir +
                                    "/es.aac' -map 0:v -map 1:a -c copy -f mp4 '" + dir +
                                    "/ffmpeg.mp4'";
        const double ffmpegBegin = bench::nowSeconds();
        if (system(command.c_str()) != 0 || !syncFile(dir + "/ffmpeg.mp4")) {
            fprintf(stderr, "ffmpeg failed: %s\n", command.c_str());
            return 1;
        }
        const double ffmpegSeconds = bench::nowSeconds() - ffmpegBegin;
        bench::printRow(what, engineRate, "ffmpeg -c copy of the same streams to MP4",
                        mediaBytes / ffmpegSeconds / 1e6, "MB/s");
    } else {
        fprintf(stderr, "ffmpeg is not installed: no ffmpeg baseline\n");
    }
    bench::printRow("heap bytes per recorded sample", heapPerSample,
                    "sample size table entry in the file", 4, "bytes");
    return 0;
}
