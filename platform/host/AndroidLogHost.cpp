// Host stand-in for liblog: "P/tag(pid): message\n", one write per line, to standard error
// or appended to the file named by TAVO_LOG_FILE; and the in-process test sink.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "AndroidLog.h"
#include "LogSink.h"
#include "UniqueHandle.h"

namespace {

TavoLogSinkFunc gSink = nullptr;
void* gSinkContext = nullptr;

char priorityLetter(int prio) {
    switch (prio) {
        case ANDROID_LOG_VERBOSE:
            return 'V';
        case ANDROID_LOG_DEBUG:
            return 'D';
        case ANDROID_LOG_INFO:
            return 'I';
        case ANDROID_LOG_WARN:
            return 'W';
        case ANDROID_LOG_ERROR:
            return 'E';
        case ANDROID_LOG_FATAL:
            return 'F';
        default:
            return 'D';
    }
}

void writeAll(int fd, const char* data, size_t length) {
    while (length > 0) {
        ssize_t n = ::write(fd, data, length);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        data += n;
        length -= static_cast<size_t>(n);
    }
}

void emitLine(int prio, const char* tag, const char* message) {
    if (gSink != nullptr)
        gSink(gSinkContext, prio, tag, message);

    char line[4096];
    size_t messageLength = strlen(message);
    bool endsWithNewline = messageLength > 0 && message[messageLength - 1] == '\n';
    int n = snprintf(line, sizeof(line), "%c/%s(%d): %s%s", priorityLetter(prio), tag,
                     static_cast<int>(getpid()), message, endsWithNewline ? "" : "\n");
    if (n < 0)
        return;
    size_t length =
        static_cast<size_t>(n) < sizeof(line) ? static_cast<size_t>(n) : sizeof(line) - 1;
    if (length > 0 && line[length - 1] != '\n')
        line[length - 1] = '\n';  // truncated line

    // One write per line (O_APPEND) so that lines of different threads never interleave.
    const char* path = getenv("TAVO_LOG_FILE");
    if (path != nullptr && path[0] != '\0') {
        const UniqueFd fd(::open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
        if (fd.valid()) {
            writeAll(fd.get(), line, length);
            return;
        }
    }
    writeAll(STDERR_FILENO, line, length);
}

void vlog(int prio, const char* tag, const char* fmt, va_list args) {
    char message[4000];
    vsnprintf(message, sizeof(message), fmt, args);
    emitLine(prio, tag != nullptr ? tag : "", message);
}

}  // namespace

void tavo_log_set_sink(TavoLogSinkFunc sink, void* context) {
    gSinkContext = context;
    gSink = sink;
}

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    vlog(prio, tag, fmt, args);
    va_end(args);
    return 1;
}

extern "C" void __android_log_assert(const char* /*cond*/, const char* tag, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    vlog(ANDROID_LOG_FATAL, tag, fmt, args);
    va_end(args);
    abort();
}
