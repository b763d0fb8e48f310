#include <cstdio>
#include <cstdlib>

#include "AndroidPaths.h"

int resolveAndroidPath(const char* androidPath, char* out, size_t outSize) {
    if (outSize == 0)
        return -1;
    const char* root = getenv("TAVO_ANDROID_ROOT");
    if (root == nullptr)
        root = "";
    int n = snprintf(out, outSize, "%s%s", root, androidPath);
    if (n < 0 || static_cast<size_t>(n) >= outSize) {
        out[0] = '\0';
        return -1;
    }
    return 0;
}
