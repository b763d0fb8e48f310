// Sole owner of a file descriptor: closes it when destroyed or reset; moves, never copies.
#ifndef TAVO_COMMON_UNIQUE_FD_H
#define TAVO_COMMON_UNIQUE_FD_H

#include <unistd.h>

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : mFd(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd&& other) noexcept : mFd(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other)
            reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int get() const { return mFd; }
    bool valid() const { return mFd >= 0; }
    int release() {
        int fd = mFd;
        mFd = -1;
        return fd;
    }
    void reset(int fd = -1) {
        if (mFd >= 0)
            ::close(mFd);
        mFd = fd;
    }

private:
    int mFd = -1;
};

#endif  // TAVO_COMMON_UNIQUE_FD_H
