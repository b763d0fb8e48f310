// Resolution of the engine's built-in Android file-system paths ("/system/lib/...",
// "/data/app/...", "/sdcard"). When TAVO_ANDROID_ROOT names a directory, a path resolves to
// that directory followed by the path; otherwise it is used as it is. Paths that come from
// outside the engine are never passed through here.
#ifndef TAVO_PLATFORM_ANDROID_PATHS_H
#define TAVO_PLATFORM_ANDROID_PATHS_H

#include <cstddef>

// Writes the resolved path into out (outSize bytes). Returns 0, or -1 when it does not fit
// (out then holds an empty string). Allocates nothing.
int resolveAndroidPath(const char* androidPath, char* out, size_t outSize);

#endif  // TAVO_PLATFORM_ANDROID_PATHS_H
