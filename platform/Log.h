// Gated logging of the engine. TLOG(CATEGORY, fmt, ...) prints, at DEBUG priority under the
// file's LOG_TAG, "[LogMask::CATEGORY][function():line]" followed by the message, but only
// when the category's switch is on. LOG_TAG must be defined before this header is included.
#ifndef TAVO_PLATFORM_LOG_H
#define TAVO_PLATFORM_LOG_H

#include "AndroidLog.h"
#include "LogMask.h"

#define TLOG_ENABLED(category) (LogMask::masks[LogMask::category] != 0)

// Logs like TLOG, but names `function` instead of the enclosing function: a helper that logs
// for a public operation passes the operation's name down, so that the line's prefix shows
// the operation the message belongs to.
#define TLOG_FOR(function, category, fmt, ...)                                             \
    do {                                                                                   \
        if (TLOG_ENABLED(category)) {                                                      \
            __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, "[%s][%s():%d]" fmt,           \
                                "LogMask::" #category, function, __LINE__, ##__VA_ARGS__); \
        }                                                                                  \
    } while (0)

#define TLOG(category, fmt, ...) TLOG_FOR(__func__, category, fmt, ##__VA_ARGS__)

// Ungated logging at a given priority, without the prefix (recorder and file writer).
#define ALOGD(...) __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, __VA_ARGS__)
#define ALOGI(...) __android_log_print(ANDROID_LOG_INFO, LOG_TAG, __VA_ARGS__)
#define ALOGW(...) __android_log_print(ANDROID_LOG_WARN, LOG_TAG, __VA_ARGS__)
#define ALOGE(...) __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, __VA_ARGS__)

// Internal invariant: logs at priority F and aborts when cond is false.
#define TAVO_ASSERT(cond)                                                                 \
    do {                                                                                  \
        if (!(cond)) {                                                                    \
            __android_log_assert(#cond, LOG_TAG, "%s:%d: assertion failed: %s", __FILE__, \
                                 __LINE__, #cond);                                        \
        }                                                                                 \
    } while (0)

#endif  // TAVO_PLATFORM_LOG_H
