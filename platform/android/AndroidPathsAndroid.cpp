// On the handset the built-in paths are used as they are.
#include <cstdio>

#include "AndroidPaths.h"

int resolveAndroidPath(const char* androidPath, char* out, size_t outSize) {
    if (outSize == 0)
        return -1;
    int n = snprintf(out, outSize, "%s", androidPath);
    if (n < 0 || static_cast<size_t>(n) >= outSize) {
        out[0] = '\0';
        return -1;
    }
    return 0;
}
