// Frame end to reader awake, across two processes: the time from the agent's onOutputAVEnd
// call in the engine's process to the moment a play engine in another process holds the
// frame, having waited for it through the play-engine SDK (mutexDataAvailable, then the
// lock). The baseline is the least such a hand-off can cost: a bare futex wake of a waiter in
// another process, through a shared page.
//
// Both processes read CLOCK_MONOTONIC, which is the same clock system-wide. Each round waits
// for the reader's acknowledgement before the next, so every wake-up is measured alone.
//
//   datapath_wake_benchmark [--smoke] [rounds]
// With TAVO_BENCH_OUT_DIR set, every sample (microseconds, engine and futex) is written to
// $TAVO_BENCH_OUT_DIR/wake-latency.dat for the histogram.
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "BenchRow.h"
#include "EngineDataPath.h"
#include "TavoPlayEngine.h"
#include "UniqueHandle.h"

namespace {

const int kChannel = 40;

int64_t monotonicNanos() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

void futexWait(std::atomic<uint32_t>* word, uint32_t expected) {
    syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAIT, expected, nullptr, nullptr,
            0);
}

void futexWake(std::atomic<uint32_t>* word) {
    syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAKE, 1, nullptr, nullptr, 0);
}

// A page shared by the two processes of a round trip: the rounds' wake-up times written by
// the reader, and the two futex words of the baseline.
class SharedRounds {
public:
    explicit SharedRounds(int rounds) : mRounds(rounds) {
        mBytes = sizeof(Layout) + sizeof(int64_t) * static_cast<size_t>(rounds);
        void* memory =
            mmap(nullptr, mBytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory != MAP_FAILED) {
            mMapping.reset(Mapping{memory, mBytes});
            mLayout = new (memory) Layout();
        }
    }
    SharedRounds(const SharedRounds&) = delete;
    SharedRounds& operator=(const SharedRounds&) = delete;

    bool valid() const { return mLayout != nullptr; }
    int64_t* wakeTimes() { return reinterpret_cast<int64_t*>(mLayout + 1); }
    std::atomic<uint32_t>* ping() { return &mLayout->ping; }
    std::atomic<uint32_t>* pong() { return &mLayout->pong; }
    int rounds() const { return mRounds; }

private:
    struct Layout {
        std::atomic<uint32_t> ping{0};
        std::atomic<uint32_t> pong{0};
        int64_t padding = 0;  // keeps the wake times 8-byte aligned
    };
    int mRounds;
    size_t mBytes = 0;
    UniqueMapping mMapping;
    Layout* mLayout = nullptr;
};

// Runs `child` in a forked process; returns its exit status (-1 when it did not exit).
template <typename Body>
int inChild(Body child, pid_t* pid) {
    *pid = fork();
    if (*pid == 0) {
        child();
        _exit(0);
    }
    return *pid > 0 ? 0 : -1;
}

int reap(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
}

// Engine: the reader is a child process that connects through the play-engine SDK (pushing
// the bench's own reader out; it holds no lock, so the buffers stay) and takes each frame with
// tavo_pe_wait_frame; it acknowledges each frame over a pipe once it has released it, and
// once before the first round, when it is connected.
bool measureEngine(EngineDataPath& bench, SharedRounds& shared, std::vector<double>* micros) {
    int ends[2];
    if (pipe(ends) != 0)
        return false;
    UniqueFd ackRead(ends[0]), ackWrite(ends[1]);
    int64_t* wakeTimes = shared.wakeTimes();
    const int rounds = shared.rounds();
    const std::string serverPath = bench.serverPath();
    const std::string ownPath = bench.root().path() + "/sdk-reader.socket";
    pid_t reader;
    inChild(
        [&] {
            ackRead.reset();
            tavo_pe* pe = tavo_pe_create(serverPath.c_str(), ownPath.c_str());
            if (pe == nullptr || tavo_pe_connect(pe, 20000) != TAVO_PE_OK)
                _exit(1);
            char byte = 1;
            if (write(ackWrite.get(), &byte, 1) != 1)
                _exit(1);
            for (int i = 0; i < rounds; ++i) {
                tavo_pe_frame frame;
                if (tavo_pe_wait_frame(pe, 0, 20000, &frame) != TAVO_PE_OK)
                    _exit(1);
                wakeTimes[i] = monotonicNanos();
                tavo_pe_release_frame(pe, &frame);
                if (write(ackWrite.get(), &byte, 1) != 1)
                    _exit(1);
            }
            tavo_pe_destroy(pe);
        },
        &reader);
    ackWrite.reset();
    if (reader < 0)
        return false;
    char connected;
    if (read(ackRead.get(), &connected, 1) != 1) {
        ackRead.reset();
        reap(reader);
        return false;
    }

    MBBMSAgentCallback* agentSide = bench.agent().callback();
    Bytes video = nalUnit(4, 0x41, 1000), audio = pattern(300);
    std::vector<int64_t> sent(static_cast<size_t>(rounds));
    bool ok = true;
    for (int i = 0; i < rounds && ok; ++i) {
        agentSide->onOutputAVStart(kChannel, nullptr, 0);
        agentSide->onClearVideoNalData(kChannel, i, 0, video.data(),
                                       static_cast<unsigned short>(video.size()),
                                       MBBMSAgent::NAL_FRAGMENT_COMPLETE);
        agentSide->onClearAudioAacFrame(kChannel, i, 0, audio.data(),
                                        static_cast<unsigned short>(audio.size()));
        sent[static_cast<size_t>(i)] = monotonicNanos();
        agentSide->onOutputAVEnd(kChannel, false);
        char byte;
        ok = read(ackRead.get(), &byte, 1) == 1;
    }
    ackRead.reset();
    ok = reap(reader) == 0 && ok;
    for (int i = 0; ok && i < rounds; ++i)
        micros->push_back(static_cast<double>(wakeTimes[i] - sent[static_cast<size_t>(i)]) / 1e3);
    return ok;
}

// Baseline: ping is set to the round number and woken; the waiter notes the time, answers on
// pong and waits for the next round.
bool measureFutex(SharedRounds& shared, std::vector<double>* micros) {
    std::atomic<uint32_t>*ping = shared.ping(), *pong = shared.pong();
    int64_t* wakeTimes = shared.wakeTimes();
    const int rounds = shared.rounds();
    ping->store(0);
    pong->store(0);
    pid_t waiter;
    inChild(
        [&] {
            for (uint32_t round = 1; round <= static_cast<uint32_t>(rounds); ++round) {
                while (ping->load() != round)
                    futexWait(ping, round - 1);
                wakeTimes[round - 1] = monotonicNanos();
                pong->store(round);
                futexWake(pong);
            }
        },
        &waiter);
    if (waiter < 0)
        return false;
    std::vector<int64_t> sent(static_cast<size_t>(rounds));
    for (uint32_t round = 1; round <= static_cast<uint32_t>(rounds); ++round) {
        sent[round - 1] = monotonicNanos();
        ping->store(round);
        futexWake(ping);
        while (pong->load() != round)
            futexWait(pong, round - 1);
    }
    if (reap(waiter) != 0)
        return false;
    for (int i = 0; i < rounds; ++i)
        micros->push_back(static_cast<double>(wakeTimes[i] - sent[static_cast<size_t>(i)]) / 1e3);
    return true;
}

void writeSamples(const std::vector<double>& engine, const std::vector<double>& futex) {
    const char* dir = getenv("TAVO_BENCH_OUT_DIR");
    if (dir == nullptr || *dir == '\0')
        return;
    std::string path = std::string(dir) + "/wake-latency.dat";
    FILE* file = fopen(path.c_str(), "w");
    if (file == nullptr) {
        perror(path.c_str());
        return;
    }
    fprintf(file, "# engine_us futex_us (one round each)\n");
    for (size_t i = 0; i < engine.size() && i < futex.size(); ++i)
        fprintf(file, "%.3f %.3f\n", engine[i], futex[i]);
    fclose(file);
}

}  // namespace

int main(int argc, char** argv) {
    const bool smoke = bench::isSmoke(argc, argv);
    int rounds = smoke ? 100 : 20000;
    for (int i = 1; i < argc; ++i) {
        if (argv[i][0] != '-')
            rounds = atoi(argv[i]);
    }
    EngineDataPath bench("none");
    if (!bench.setUpError().empty() || bench.startService(0, 7, kChannel) != 0) {
        fprintf(stderr, "set-up failed: %s\n", bench.setUpError().c_str());
        return 1;
    }
    SharedRounds shared(rounds);
    std::vector<double> engine, futex;
    if (!shared.valid() || !measureEngine(bench, shared, &engine) ||
        !measureFutex(shared, &futex)) {
        fprintf(stderr, "a round trip failed\n");
        return 1;
    }
    writeSamples(engine, futex);
    std::vector<double> engineSorted = engine, futexSorted = futex;
    bench::printRow("frame end to reader awake, other process, p50",
                    bench::percentile(engineSorted, 50), "futex ping-pong between processes",
                    bench::percentile(futexSorted, 50), "us");
    bench::printRow("frame end to reader awake, other process, p99",
                    bench::percentile(engineSorted, 99), "futex ping-pong between processes",
                    bench::percentile(futexSorted, 99), "us");
    return 0;
}
