// The one place where free space is computed from a statfs or fstatfs result. The queries
// themselves go through the Env of whoever asks (Env::statfs, Env::fstatfs), so that tests
// can change the answers.
#ifndef TAVO_PLATFORM_FILE_SYSTEM_SPACE_H
#define TAVO_PLATFORM_FILE_SYSTEM_SPACE_H

#include <sys/vfs.h>

// Free bytes of a file system: block size times free blocks, in 64 bits.
inline long long freeSpaceBytes(const struct statfs& status) {
    return static_cast<long long>(static_cast<unsigned long long>(status.f_bsize) *
                                  static_cast<unsigned long long>(status.f_bfree));
}

#endif  // TAVO_PLATFORM_FILE_SYSTEM_SPACE_H
