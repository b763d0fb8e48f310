#include "FileSystemSpace.h"

#include "Env.h"

int platform_statfs(const char* path, struct statfs* out) {
    return Env::current()->statfs(path, out);
}

int platform_fstatfs(int fd, struct statfs* out) {
    return Env::current()->fstatfs(fd, out);
}
