#include "FileSystemSpace.h"

int platform_statfs(const char* path, struct statfs* out) {
    return statfs(path, out);
}

int platform_fstatfs(int fd, struct statfs* out) {
    return fstatfs(fd, out);
}
