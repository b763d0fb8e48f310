// Free-space queries of the engine (statfs and fstatfs). The host backend forwards to the
// real calls; builds with TAVO_FAULT_INJECTION let tests replace the answers (see
// FaultInjection.h: TAVO_FAKE_FREE_BYTES) where no small file system can be mounted.
#ifndef TAVO_PLATFORM_FILE_SYSTEM_SPACE_H
#define TAVO_PLATFORM_FILE_SYSTEM_SPACE_H

#include <sys/vfs.h>

int platform_statfs(const char* path, struct statfs* out);
int platform_fstatfs(int fd, struct statfs* out);

#endif  // TAVO_PLATFORM_FILE_SYSTEM_SPACE_H
