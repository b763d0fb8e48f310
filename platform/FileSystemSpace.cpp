#include "FileSystemSpace.h"

#include "Env.h"

int platform_fstatfs(int fd, struct statfs* out) {
    return Env::current()->fstatfs(fd, out);
}
