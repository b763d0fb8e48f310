// Sole owner of a memory mapping: unmaps it when destroyed or reset; moves, never copies.
#ifndef TAVO_COMMON_UNIQUE_MAPPING_H
#define TAVO_COMMON_UNIQUE_MAPPING_H

#include <sys/mman.h>

#include <cstddef>

class UniqueMapping {
public:
    UniqueMapping() = default;
    UniqueMapping(void* address, size_t length) : mAddress(address), mLength(length) {}
    ~UniqueMapping() { reset(); }
    UniqueMapping(UniqueMapping&& other) noexcept
        : mAddress(other.mAddress), mLength(other.mLength) {
        other.mAddress = nullptr;
        other.mLength = 0;
    }
    UniqueMapping& operator=(UniqueMapping&& other) noexcept {
        if (this != &other) {
            reset();
            mAddress = other.mAddress;
            mLength = other.mLength;
            other.mAddress = nullptr;
            other.mLength = 0;
        }
        return *this;
    }
    UniqueMapping(const UniqueMapping&) = delete;
    UniqueMapping& operator=(const UniqueMapping&) = delete;

    void* get() const { return mAddress; }
    bool valid() const { return mAddress != nullptr; }
    void reset() {
        if (mAddress != nullptr)
            ::munmap(mAddress, mLength);
        mAddress = nullptr;
        mLength = 0;
    }

private:
    void* mAddress = nullptr;
    size_t mLength = 0;
};

#endif  // TAVO_COMMON_UNIQUE_MAPPING_H
