// Reads the recording that is being repaired. The file belongs to someone else and may change
// while it is read, so it is never mapped: bytes are copied out with positioned reads (pread)
// through one reusable block. A file that shrinks under the repair then yields a failed read
// instead of a fault, and nothing is read past the size the caller saw when it started.
// Used by one thread.
#ifndef TAVO_MP4WRITER_REPAIR_INPUT_H
#define TAVO_MP4WRITER_REPAIR_INPUT_H

#include <cstddef>
#include <cstdint>
#include <vector>

class RepairInput {
public:
    // `fd` stays the caller's; `size` is the file's size when the repair began.
    RepairInput(int fd, uint64_t size);

    RepairInput(const RepairInput&) = delete;
    RepairInput& operator=(const RepairInput&) = delete;

    uint64_t size() const { return mSize; }
    // Bytes from `offset` to the end of the file (0 past the end).
    uint64_t bytesFrom(uint64_t offset) const { return offset < mSize ? mSize - offset : 0; }

    // Copies `count` bytes at `offset` into `into`. False when they are not all within
    // size(), or when the file no longer holds them (then shrankOrFailed() is true).
    bool read(uint64_t offset, void* into, size_t count);
    // A read came back short or failed: the file shrank or cannot be read any more. Sticky.
    bool shrankOrFailed() const { return mFailed; }

    static constexpr size_t kBlockSize = 64 * 1024;

private:
    // Reads exactly `count` bytes at `offset`; false (and mFailed) on a short read.
    bool readExactly(uint64_t offset, uint8_t* into, size_t count);

    int mFd;
    uint64_t mSize;
    std::vector<uint8_t> mBlock;  // the bytes at mBlockOffset, mBlockBytes of them valid
    uint64_t mBlockOffset = 0;
    size_t mBlockBytes = 0;
    bool mFailed = false;
};

#endif  // TAVO_MP4WRITER_REPAIR_INPUT_H
