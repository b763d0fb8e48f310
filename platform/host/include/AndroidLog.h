// The Android log interface. On the handset it is liblog; on a Linux host the project's own
// stand-in writes one line per message to standard error or to the file named by
// TAVO_LOG_FILE, formatted "P/tag(pid): message".
#ifndef TAVO_PLATFORM_ANDROID_LOG_H
#define TAVO_PLATFORM_ANDROID_LOG_H

#ifdef __cplusplus
extern "C" {
#endif

typedef enum android_LogPriority {
    ANDROID_LOG_UNKNOWN = 0,
    ANDROID_LOG_DEFAULT,
    ANDROID_LOG_VERBOSE,
    ANDROID_LOG_DEBUG,
    ANDROID_LOG_INFO,
    ANDROID_LOG_WARN,
    ANDROID_LOG_ERROR,
    ANDROID_LOG_FATAL,
    ANDROID_LOG_SILENT,
} android_LogPriority;

int __android_log_print(int prio, const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));

// Logs at priority F and aborts the process.
void __android_log_assert(const char* cond, const char* tag, const char* fmt, ...)
    __attribute__((noreturn, format(printf, 3, 4)));

#ifdef __cplusplus
}
#endif

#endif  // TAVO_PLATFORM_ANDROID_LOG_H
