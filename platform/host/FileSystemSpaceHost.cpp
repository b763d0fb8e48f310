#include "FileSystemSpace.h"

#ifdef TAVO_FAULT_INJECTION
#include <errno.h>

#include <cstdlib>
#include <cstring>

#include "FaultInjection.h"

namespace {

// Applies TAVO_FAKE_FREE_BYTES to the result of a real query (see FaultInjection.h).
int injectFreeSpace(int realResult, struct statfs* out) {
    if (realResult != 0)
        return realResult;
    const char* fake = getenv(TAVO_FAKE_FREE_BYTES_ENV);
    if (fake == nullptr)
        return realResult;
    if (strcmp(fake, "fail") == 0) {
        errno = EIO;
        return -1;
    }
    unsigned long long bytes = strtoull(fake, nullptr, 10);
    out->f_bsize = 1;
    out->f_frsize = 1;
    out->f_bfree = static_cast<decltype(out->f_bfree)>(bytes);
    out->f_bavail = static_cast<decltype(out->f_bavail)>(bytes);
    return 0;
}

}  // namespace

int platform_statfs(const char* path, struct statfs* out) {
    return injectFreeSpace(statfs(path, out), out);
}

int platform_fstatfs(int fd, struct statfs* out) {
    return injectFreeSpace(fstatfs(fd, out), out);
}

#else

int platform_statfs(const char* path, struct statfs* out) {
    return statfs(path, out);
}

int platform_fstatfs(int fd, struct statfs* out) {
    return fstatfs(fd, out);
}

#endif
