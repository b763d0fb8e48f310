// In-process log sink for tests: when one is installed, every message written through
// __android_log_print is also handed to it (priority, tag and the formatted message).
// Only code linked against the platform layer directly can install one; tests that use the
// engine library through its public interface read TAVO_LOG_FILE instead.
#ifndef TAVO_PLATFORM_LOG_SINK_H
#define TAVO_PLATFORM_LOG_SINK_H

typedef void (*TavoLogSinkFunc)(void* context, int prio, const char* tag, const char* message);

// Installs (or, with a null function, removes) the sink. Not thread-safe against
// concurrent installs; install before starting the threads that log.
void tavo_log_set_sink(TavoLogSinkFunc sink, void* context);

#endif  // TAVO_PLATFORM_LOG_SINK_H
