// printf-style formatting into a std::string of whatever length the text takes.
#ifndef TAVO_COMMON_FORMAT_STRING_H
#define TAVO_COMMON_FORMAT_STRING_H

#include <cstdarg>
#include <cstdio>
#include <string>

inline std::string formatString(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

inline std::string formatString(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    va_list measuring;
    va_copy(measuring, args);
    const int length = vsnprintf(nullptr, 0, fmt, measuring);
    va_end(measuring);
    std::string text;
    if (length > 0) {
        text.resize(static_cast<size_t>(length));
        // The string's own terminator takes the NUL that vsnprintf writes.
        vsnprintf(&text[0], text.size() + 1, fmt, args);
    }
    va_end(args);
    return text;
}

#endif  // TAVO_COMMON_FORMAT_STRING_H
