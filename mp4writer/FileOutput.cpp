#include "FileOutput.h"

#include <errno.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "Env.h"

namespace {

// Box headers and tables collect here; samples of a chunk go straight through.
const size_t kBufferCapacity = 64 * 1024;

}  // namespace

FileOutput::FileOutput(UniqueFd fd, Env* env)
    : mFd(std::move(fd)), mEnv(env), mFilePosition(0), mError(0) {
    mBuffer.reserve(kBufferCapacity);
}

FileOutput::~FileOutput() {
    close();
}

size_t FileOutput::write(const void* data, size_t size) {
    if (!isOpen() || mError != 0 || size == 0)
        return 0;
    if (mBuffer.size() + size > kBufferCapacity && !flush())
        return 0;
    if (size > kBufferCapacity)
        return writeAll(static_cast<const uint8_t*>(data), size) ? size : 0;
    const uint8_t* bytes = static_cast<const uint8_t*>(data);
    mBuffer.insert(mBuffer.end(), bytes, bytes + size);
    return size;
}

bool FileOutput::writeThrough(const void* data, size_t size) {
    if (!isOpen() || mError != 0)
        return false;
    return flush() && writeAll(static_cast<const uint8_t*>(data), size);
}

bool FileOutput::patch(int64_t position, const void* data, size_t size) {
    if (!isOpen() || mError != 0)
        return false;
    const uint8_t* bytes = static_cast<const uint8_t*>(data);
    // The part that is still buffered is changed in the buffer, the rest in the file.
    size_t inFile = 0;
    if (position < mFilePosition)
        inFile = static_cast<size_t>(std::min<int64_t>(mFilePosition - position, size));
    size_t done = 0;
    while (done < inFile) {
        ssize_t written = mEnv->pwrite(mFd.get(), bytes + done, inFile - done,
                                       static_cast<off_t>(position + done));
        if (written <= 0) {
            mError = written < 0 ? errno : ENOSPC;
            return false;
        }
        done += static_cast<size_t>(written);
    }
    if (inFile < size) {
        const size_t at = static_cast<size_t>(position + inFile - mFilePosition);
        if (at + (size - inFile) > mBuffer.size())
            return false;  // past the end: not an earlier byte
        memcpy(mBuffer.data() + at, bytes + inFile, size - inFile);
    }
    return true;
}

bool FileOutput::flush() {
    if (!isOpen() || mError != 0)
        return false;
    if (mBuffer.empty())
        return true;
    const bool ok = writeAll(mBuffer.data(), mBuffer.size());
    mBuffer.clear();  // what did not reach the file is dropped with the failure
    return ok;
}

bool FileOutput::close() {
    if (!isOpen())
        return false;
    const bool ok = flush();
    mFd.reset();
    return ok;
}

bool FileOutput::writeAll(const uint8_t* data, size_t size) {
    size_t done = 0;
    while (done < size) {
        ssize_t written = mEnv->write(mFd.get(), data + done, size - done);
        if (written <= 0) {
            mError = written < 0 ? errno : ENOSPC;
            mFilePosition += static_cast<int64_t>(done);
            return false;
        }
        done += static_cast<size_t>(written);
    }
    mFilePosition += static_cast<int64_t>(size);
    return true;
}
