// A file on tmpfs reused by every input of a fuzz target: truncated and reopened for each
// input, removed when the process ends.
#ifndef TAVO_FUZZ_FUZZ_SCRATCH_FILE_H
#define TAVO_FUZZ_FUZZ_SCRATCH_FILE_H

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "UniqueHandle.h"

class FuzzScratchFile {
public:
    explicit FuzzScratchFile(const char* name) {
        const char* dir = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        mPath = std::string(dir) + "/tavo-fuzz-" + name + "-" + std::to_string(getpid());
    }
    ~FuzzScratchFile() { unlink(mPath.c_str()); }
    FuzzScratchFile(const FuzzScratchFile&) = delete;
    FuzzScratchFile& operator=(const FuzzScratchFile&) = delete;

    // An empty file open for reading and writing.
    UniqueFd openEmpty() const {
        UniqueFd fd(open(mPath.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        if (!fd.valid()) {
            perror(mPath.c_str());
            abort();
        }
        return fd;
    }
    const std::string& path() const { return mPath; }

private:
    std::string mPath;
};

#endif  // TAVO_FUZZ_FUZZ_SCRATCH_FILE_H
