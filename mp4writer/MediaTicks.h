// Input timestamps are ticks of the broadcast clock, 1/22500 s. These convert them into a
// track's or the movie's time scale.
#ifndef TAVO_MP4WRITER_MEDIA_TICKS_H
#define TAVO_MP4WRITER_MEDIA_TICKS_H

#include <cstdint>

enum { CMMB_TICKS_PER_SECOND = 22500 };

// Sample times and durations: rounded to the nearest unit in 64-bit integer arithmetic.
inline int64_t ticksToTimeScale(int64_t ticks, int32_t timeScale) {
    return (ticks * timeScale + CMMB_TICKS_PER_SECOND / 2) / CMMB_TICKS_PER_SECOND;
}

// Header durations (mvhd, tkhd, mdhd): rounded in floating point, truncated to 32 bits.
inline int32_t ticksToHeaderDuration(int64_t ticks, int32_t timeScale) {
    return static_cast<int32_t>((static_cast<double>(ticks * timeScale) + 11250.0) / 22500.0);
}

#endif  // TAVO_MP4WRITER_MEDIA_TICKS_H
