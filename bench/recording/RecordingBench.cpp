// Benchmarks of recording:
//  1. The stop stall: the longest live frame on the agent's thread (onOutputAVStart to
//     onOutputAVEnd, two sessions on the channel) while stopRecording completes a 30-minute
//     recording. The recording is generated synthetically, frame after frame, not in real time.
//     Baseline: how long that completion takes, i.e. how long live frames would wait if it ran
//     while they are held back.
//  2. The cost of the repair records in bytes per hour of content, measured through the
//     writer with the records on and off. Baseline: 1 % of the file per hour.
//
//   recording_benchmark [--smoke]
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "CmmbMPEG4Writer.h"
#include "EngineDataPath.h"
#include "Env.h"
#include "UniqueHandle.h"

namespace {

using Clock = std::chrono::steady_clock;

const int kChannel = 40;
const uint32_t kTicksPerSecond = 22500;

double millisecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// How one frame call went: its wall time, and how often the calling thread was switched out
// in it because it waited (voluntary: a lock, a semaphore) or because the CPU was taken from
// it (involuntary: preemption by another thread or process).
struct FrameCall {
    double ms = 0;
    long waits = 0;
    long preemptions = 0;
    long pageFaults = 0;
    double cpuMs = 0;  // CPU time the thread was charged with
};

struct ThreadSwitches {
    long voluntary, involuntary, pageFaults;
    double cpuMs;
    static ThreadSwitches now() {
        struct rusage usage;
        getrusage(RUSAGE_THREAD, &usage);
        struct timespec cpu;
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpu);
        return {usage.ru_nvcsw, usage.ru_nivcsw, usage.ru_minflt + usage.ru_majflt,
                cpu.tv_sec * 1e3 + cpu.tv_nsec / 1e6};
    }
};

// One second of a 300 kbit/s service: an SPS, a PPS and an IDR slice, 24 P slices, 23 AAC
// frames, delivered by the agent's own thread back to back as a tuner does, and timed there.
FrameCall playSecond(EngineDataPath& bench, uint32_t second) {
    static const Bytes kSps = {0, 0, 0, 1, 0x67, 0x42, 0xC0, 0x1E, 0xDA, 0x02, 0x80, 0xBF};
    static const Bytes kPps = {0, 0, 0, 1, 0x68, 0xCE, 0x3C, 0x80};
    static const Bytes kIdr = nalUnit(4, 0x65, 1500);
    static const Bytes kSlice = nalUnit(4, 0x41, 1500);
    static const Bytes kAudio = pattern(180);
    static Bytes scratch(2048);  // the agent's buffers are writable: each item is a fresh copy
    const uint32_t base = 45000 + second * kTicksPerSecond;
    FrameCall call;
    bench.agent().runOnAgentThread([&](MBBMSAgentCallback* agent) {
        auto nal = [&](const Bytes& unit, unsigned long tsRelative) {
            memcpy(scratch.data(), unit.data(), unit.size());
            agent->onClearVideoNalData(kChannel, base, tsRelative, scratch.data(),
                                       static_cast<unsigned short>(unit.size()),
                                       MBBMSAgent::NAL_FRAGMENT_COMPLETE);
        };
        const ThreadSwitches before = ThreadSwitches::now();
        const auto start = Clock::now();
        agent->onOutputAVStart(kChannel, nullptr, 0);
        nal(kSps, 0);
        nal(kPps, 0);
        nal(kIdr, 0);
        for (uint32_t i = 1; i < 25; ++i)
            nal(kSlice, i * 900);
        for (uint32_t i = 0; i < 23; ++i) {
            memcpy(scratch.data(), kAudio.data(), kAudio.size());
            agent->onClearAudioAacFrame(kChannel, base + i * 960, 0, scratch.data(),
                                        static_cast<unsigned short>(kAudio.size()));
        }
        agent->onOutputAVEnd(kChannel, false);
        call.ms = millisecondsSince(start);
        const ThreadSwitches after = ThreadSwitches::now();
        call.waits = after.voluntary - before.voluntary;
        call.preemptions = after.involuntary - before.involuntary;
        call.pageFaults = after.pageFaults - before.pageFaults;
        call.cpuMs = after.cpuMs - before.cpuMs;
    });
    return call;
}

// The longest frame calls of a stretch, in all and among those that never waited.
struct LongestFrames {
    FrameCall longest;
    double longestWithoutWaiting = 0;
    void add(const FrameCall& call) {
        if (call.ms > longest.ms)
            longest = call;
        if (call.waits == 0)
            longestWithoutWaiting = std::max(longestWithoutWaiting, call.ms);
    }
};

// The kernel writes a file's dirty pages back about 30 s after they were written
// (vm.dirty_expire_centisecs), so a recording made in real time has only its last half
// minute or so left to sync when it stops.
const uint32_t kDirtySeconds = 30;

// writtenBack: sync the file before its last kDirtySeconds, as the kernel's writeback would
// have during a real-time recording; otherwise all of it is still to be synced at the stop,
// the worst case (this benchmark generates the recording much faster than real time).
int stopStall(int minutes, bool writtenBack) {
    EngineDataPath bench("none", /*connectPlayEngine=*/false);
    if (!bench.setUpError().empty() || bench.startService(0, 7, kChannel) != 0 ||
        bench.startService(1, 7, kChannel) != 0) {
        fprintf(stderr, "set-up failed: %s\n", bench.setUpError().c_str());
        return 1;
    }
    const std::string path = bench.root().path() + "/long.3gp";
    UniqueFd fd(open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644));
    if (!fd.valid() || bench.engine().startRecording(0, fd.get()) != 0) {
        fprintf(stderr, "cannot record into %s\n", path.c_str());
        return 1;
    }
    uint32_t second = 0;
    LongestFrames whileRecording;
    const uint32_t seconds = static_cast<uint32_t>(minutes) * 60;
    for (; second < seconds; ++second) {
        if (writtenBack && second == seconds - kDirtySeconds)
            fsync(fd.get());
        whileRecording.add(playSecond(bench, second));
    }
    fd.reset();  // the recorder works on its own duplicate

    std::atomic<bool> completed{false};
    double completionMs = 0;
    std::thread stopper([&] {
        const auto start = Clock::now();
        bench.engine().stopRecording(0);
        completionMs = millisecondsSince(start);
        completed = true;
    });
    LongestFrames duringStop;
    int framesDuringStop = 0;
    while (!completed.load()) {
        duringStop.add(playSecond(bench, second++));
        ++framesDuringStop;
    }
    stopper.join();
    struct stat status;
    stat(path.c_str(), &status);
    fprintf(stderr,
            "%s: %d minutes recorded (%.1f MB); completion %.1f ms; %d live frames during it, "
            "longest %.3f ms (%.3f ms CPU, %ld waits, %ld preemptions, %ld page faults in it; "
            "longest without a wait %.3f ms); "
            "longest while recording: %.3f ms (%ld waits, %ld preemptions)\n",
            writtenBack ? "written back" : "all dirty", minutes, status.st_size / 1e6, completionMs,
            framesDuringStop, duringStop.longest.ms, duringStop.longest.cpuMs,
            duringStop.longest.waits, duringStop.longest.preemptions, duringStop.longest.pageFaults,
            duringStop.longestWithoutWaiting, whileRecording.longest.ms,
            whileRecording.longest.waits, whileRecording.longest.preemptions);
    const double longestDuringStop = duringStop.longest.ms;
    printf(
        "bench-row|stop stall: longest live frame while a %d-minute recording is "
        "completed, %s|%.3f|completion under the frame lock|%.3f|ms\n",
        minutes,
        writtenBack ? "all but its last 30 s already written back" : "all of it still dirty",
        longestDuringStop, completionMs);
    return 0;
}

// File bytes of `seconds` of the same service written through the writer.
long long recordedBytes(long long seconds, bool repairRecords) {
    CmmbMediaSource video = {"video/avc", 320, 240, 25, 22500};
    CmmbMediaSource audio = {"audio/mp4a-latm", 0, 0, 24000, 24000};
    CmmbMPEG4Writer writer(open("/dev/null", O_WRONLY), Env::platform());
    writer.setRepairRecords(repairRecords);
    writer.addSource(&video);
    writer.addSource(&audio);
    _CmmbMetaData meta = {24000, true, true};
    writer.start(&meta);
    std::unique_ptr<_CmmbOutBuffer> buffer(new _CmmbOutBuffer());
    auto feed = [&](const char* mime, int64_t timestamp, uint32_t length, bool sync) {
        buffer->mime = mime;
        buffer->timestamp = timestamp;
        buffer->length = length;
        buffer->data = buffer->storage;
        buffer->isSyncFrame = sync;
        writer.writeout(buffer.get());
    };
    static const uint8_t kSps[] = {0x67, 0x42, 0xC0, 0x1E, 0xDA, 0x02};
    static const uint8_t kPps[] = {0x68, 0xCE, 0x3C, 0x80};
    memcpy(buffer->storage, kSps, sizeof(kSps));
    feed("video/avc", 0, sizeof(kSps), false);
    memcpy(buffer->storage, kPps, sizeof(kPps));
    feed("video/avc", 0, sizeof(kPps), false);
    memset(buffer->storage, 0x41, 1500);
    long long videoAt = 0, audioAt = 0, frame = 0;
    const long long end = seconds * kTicksPerSecond;
    while (videoAt < end || audioAt < end) {
        if (videoAt <= audioAt) {
            feed("video/avc", videoAt, 1500, frame++ % 25 == 0);
            videoAt += 900;
        } else {
            feed("audio/mp4a-latm", audioAt, 180, false);
            audioAt += 960;
        }
    }
    writer.stop();
    return writer.currentOffset();
}

int repairRecordCost(long long seconds) {
    const long long plain = recordedBytes(seconds, false);
    const long long withRecords = recordedBytes(seconds, true);
    const double perHour = 3600.0 / static_cast<double>(seconds);
    fprintf(stderr, "%lld s: %lld bytes plain, %lld with repair records (+%.3f %%)\n", seconds,
            plain, withRecords, 100.0 * (withRecords - plain) / plain);
    printf(
        "bench-row|repair records per hour of content|%.0f|1%% of the file per hour|%.0f|"
        "bytes\n",
        (withRecords - plain) * perHour, 0.01 * plain * perHour);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const bool smoke = argc > 1 && strcmp(argv[1], "--smoke") == 0;
    // One engine per process: each stall measurement runs in a child of its own.
    for (bool writtenBack : {false, true}) {
        fflush(stdout);
        const pid_t child = fork();
        if (child == 0) {
            const int result = stopStall(smoke ? 1 : 30, writtenBack);
            fflush(stdout);
            _exit(result);
        }
        int status = 0;
        if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status) ||
            WEXITSTATUS(status) != 0)
            return 1;
    }
    return repairRecordCost(smoke ? 60 : 3600);
}
