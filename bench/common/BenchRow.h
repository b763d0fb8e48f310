// What every benchmark program shares: the result line that scripts/run_benchmarks.sh
// collects, the --smoke switch, percentiles, a steady clock and the calling thread's CPU clock.
//
// A result row is one line on standard output:
//   bench-row|<what is measured>|<engine figure>|<baseline name>|<baseline figure>|<unit>
// Lower is better unless the unit ends in "/s".
#ifndef TAVO_BENCH_COMMON_BENCH_ROW_H
#define TAVO_BENCH_COMMON_BENCH_ROW_H

#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <vector>

namespace bench {

inline void printRow(const char* what, double engine, const char* baselineName, double baseline,
                     const char* unit) {
    printf("bench-row|%s|%.6g|%s|%.6g|%s\n", what, engine, baselineName, baseline, unit);
    fflush(stdout);
}

// --smoke: tiny counts, only to show the program still runs (CI).
inline bool isSmoke(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--smoke") == 0)
            return true;
    }
    return false;
}

inline double nowSeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// CPU time of the calling thread, user and system: for work that never waits, it leaves out
// the time other processes on the machine take, so that runs under load stay comparable.
inline double threadCpuSeconds() {
    struct timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// The p-th percentile (0..100) of `values`, which it sorts; 0 when empty.
inline double percentile(std::vector<double>& values, double p) {
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    size_t index = static_cast<size_t>(p / 100.0 * static_cast<double>(values.size() - 1) + 0.5);
    return values[std::min(index, values.size() - 1)];
}

// Keeps the compiler from dropping work whose result is otherwise unused.
inline void keep(const void* pointer) {
    asm volatile("" : : "r"(pointer) : "memory");
}

}  // namespace bench

#endif  // TAVO_BENCH_COMMON_BENCH_ROW_H
