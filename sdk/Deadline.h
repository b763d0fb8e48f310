// Time-outs of the SDK's waits, on the monotonic clock, in milliseconds.
#ifndef TAVO_SDK_DEADLINE_H
#define TAVO_SDK_DEADLINE_H

#include <time.h>

#include <cstdint>

inline int64_t monotonicMs() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Milliseconds left until `deadline` (a monotonicMs() value), 0 once it has passed.
inline int remainingMs(int64_t deadline) {
    const int64_t left = deadline - monotonicMs();
    return left > 0 ? static_cast<int>(left) : 0;
}

#endif  // TAVO_SDK_DEADLINE_H
