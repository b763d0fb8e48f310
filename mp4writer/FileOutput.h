// The writer's output file: a descriptor written front to back through a buffer, with
// earlier bytes patched in place, every write going through the Env the output is created
// with (which must outlive it) and checked.
//
// The first failed or short write is latched: error() then holds its errno, position()
// counts only the bytes that reached the file, and further writes are refused (they return
// 0) until clearError(), which lets the writer try to complete the file with what is left.
//
// Owned and used by one writer on one thread at a time.
#ifndef TAVO_MP4WRITER_FILE_OUTPUT_H
#define TAVO_MP4WRITER_FILE_OUTPUT_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "UniqueHandle.h"

class Env;

class FileOutput {
public:
    // Closed by close() or the destructor; an empty fd gives an output that is not open.
    FileOutput(UniqueFd fd, Env* env);
    ~FileOutput();
    FileOutput(const FileOutput&) = delete;
    FileOutput& operator=(const FileOutput&) = delete;

    bool isOpen() const { return mFd.valid(); }
    // Appends; returns the number of bytes taken (size, or 0 after a failure).
    size_t write(const void* data, size_t size);
    // Appends and hands the bytes to the file at once (a chunk of samples). False on failure.
    bool writeThrough(const void* data, size_t size);
    // Overwrites bytes at an earlier position. False on failure.
    bool patch(int64_t position, const void* data, size_t size);
    // Hands the buffered bytes to the file. False on failure.
    bool flush();
    // Flushes and closes; returns the flush result (the descriptor is closed either way).
    bool close();

    // Bytes in the file so far, the buffered ones included.
    int64_t position() const { return mFilePosition + static_cast<int64_t>(mBuffer.size()); }
    int error() const { return mError; }
    void clearError() { mError = 0; }

private:
    // Writes all of [data, data + size) at the end of the file; on failure latches the errno
    // (ENOSPC for a write that made no progress) and returns false.
    bool writeAll(const uint8_t* data, size_t size);

    UniqueFd mFd;
    Env* const mEnv;
    int64_t mFilePosition;         // bytes handed to the file
    std::vector<uint8_t> mBuffer;  // bytes that follow them, not yet handed over
    int mError;                    // errno of the first failure, 0 when none
};

#endif  // TAVO_MP4WRITER_FILE_OUTPUT_H
