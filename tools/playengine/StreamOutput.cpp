#include "StreamOutput.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

StreamOutput::StreamOutput(const std::string& path)
    : mPath(path), mIsStdout(path == "-"), mBroken(false) {}

bool StreamOutput::open() {
    if (mIsStdout)
        return true;
    mFd.reset(::open(mPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!mFd.valid()) {
        fprintf(stderr, "playengine: cannot open %s: %s\n", mPath.c_str(), strerror(errno));
        mBroken = true;
        return false;
    }
    return true;
}

void StreamOutput::write(const unsigned char* bytes, size_t size) {
    if (!enabled() || size == 0)
        return;
    if (!mIsStdout && !mFd.valid() && !open())
        return;
    int fd = mIsStdout ? STDOUT_FILENO : mFd.get();
    while (size > 0) {
        ssize_t written = ::write(fd, bytes, size);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0) {
            fprintf(stderr, "playengine: writing %s failed (%s), stream stopped\n", mPath.c_str(),
                    written < 0 ? strerror(errno) : "nothing written");
            mBroken = true;
            mFd.reset();
            return;
        }
        bytes += written;
        size -= static_cast<size_t>(written);
    }
}
