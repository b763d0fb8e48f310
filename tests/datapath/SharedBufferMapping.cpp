#include "SharedBufferMapping.h"

#include <errno.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cstring>

SharedBufferMapping::~SharedBufferMapping() {
    if (mBuffer != nullptr)
        munmap(mBuffer, CMMB_SHARED_BUFFER_SIZE);
}

bool SharedBufferMapping::map(UniqueFd fd, std::string* error) {
    struct stat status;
    if (fstat(fd.get(), &status) != 0) {
        *error = std::string("fstat: ") + strerror(errno);
        return false;
    }
    if (status.st_size < static_cast<off_t>(CMMB_SHARED_BUFFER_SIZE)) {
        *error = "region of " + std::to_string(status.st_size) + " bytes is too small";
        return false;
    }
    void* address =
        mmap(nullptr, CMMB_SHARED_BUFFER_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    if (address == MAP_FAILED) {
        *error = std::string("mmap: ") + strerror(errno);
        return false;
    }
    mFd = std::move(fd);
    mBuffer = static_cast<CmmbSharedBuffer*>(address);
    return true;
}
