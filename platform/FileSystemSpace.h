// Free-space queries of the engine (statfs and fstatfs through Env::current(), so that tests
// can change the answers) and the one place where free space is computed from their result.
#ifndef TAVO_PLATFORM_FILE_SYSTEM_SPACE_H
#define TAVO_PLATFORM_FILE_SYSTEM_SPACE_H

#include <sys/vfs.h>

int platform_statfs(const char* path, struct statfs* out);
int platform_fstatfs(int fd, struct statfs* out);

// Free bytes of a file system: block size times free blocks, in 64 bits.
inline long long freeSpaceBytes(const struct statfs& status) {
    return static_cast<long long>(static_cast<unsigned long long>(status.f_bsize) *
                                  static_cast<unsigned long long>(status.f_bfree));
}

#endif  // TAVO_PLATFORM_FILE_SYSTEM_SPACE_H
