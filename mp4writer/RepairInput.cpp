#include "RepairInput.h"

#include <errno.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

RepairInput::RepairInput(int fd, uint64_t size) : mFd(fd), mSize(size) {}

bool RepairInput::read(uint64_t offset, void* into, size_t count) {
    if (mFailed || offset > mSize || count > mSize - offset)
        return false;
    uint8_t* out = static_cast<uint8_t*>(into);
    if (offset >= mBlockOffset && offset - mBlockOffset <= mBlockBytes &&
        count <= mBlockBytes - (offset - mBlockOffset)) {
        memcpy(out, mBlock.data() + (offset - mBlockOffset), count);
        return true;
    }
    if (count >= kBlockSize)
        return readExactly(offset, out, count);  // large reads bypass the block
    if (mBlock.empty())
        mBlock.resize(kBlockSize);
    const size_t fill = static_cast<size_t>(std::min<uint64_t>(kBlockSize, mSize - offset));
    mBlockBytes = 0;
    if (!readExactly(offset, mBlock.data(), fill))
        return false;
    mBlockOffset = offset;
    mBlockBytes = fill;
    memcpy(out, mBlock.data(), count);
    return true;
}

bool RepairInput::readExactly(uint64_t offset, uint8_t* into, size_t count) {
    while (count > 0) {
        const ssize_t got = pread(mFd, into, count, static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0) {
            mFailed = true;  // an error, or the end of a file that shrank
            return false;
        }
        into += got;
        offset += static_cast<uint64_t>(got);
        count -= static_cast<size_t>(got);
    }
    return true;
}
