// Input timestamps are ticks of the broadcast clock, 1/22500 s. These convert them into a
// track's or the movie's time scale.
#ifndef TAVO_MP4WRITER_MEDIA_TICKS_H
#define TAVO_MP4WRITER_MEDIA_TICKS_H

#include <cstdint>

enum { CMMB_TICKS_PER_SECOND = 22500 };

// Sample times and durations: rounded to the nearest unit, (ticks x timeScale + 11250) /
// 22500 in integer arithmetic. The product is taken in two parts (whole seconds and the
// rest) so that it cannot overflow for any time a track can reach; for ticks >= 0 the
// result is exactly that of the single product.
inline int64_t ticksToTimeScale(int64_t ticks, int32_t timeScale) {
    const int64_t seconds = ticks / CMMB_TICKS_PER_SECOND;
    const int64_t rest = ticks % CMMB_TICKS_PER_SECOND;
    return seconds * timeScale +
           (rest * timeScale + CMMB_TICKS_PER_SECOND / 2) / CMMB_TICKS_PER_SECOND;
}

// Header durations (mvhd, tkhd, mdhd): rounded in floating point, truncated to 32 bits
// (durations beyond the 32-bit range are clamped to it).
inline int32_t ticksToHeaderDuration(int64_t ticks, int32_t timeScale) {
    const double units = (static_cast<double>(ticks) * timeScale + 11250.0) / 22500.0;
    if (units >= 2147483647.0)
        return 2147483647;
    if (units <= -2147483648.0)
        return INT32_MIN;
    return static_cast<int32_t>(units);
}

// A track's input time that jumps backwards, or forwards by more than this past the time
// the next sample was due, is a discontinuity of the broadcast clock, not a gap.
enum { CMMB_MAX_TICK_GAP = 3 * CMMB_TICKS_PER_SECOND };

#endif  // TAVO_MP4WRITER_MEDIA_TICKS_H
