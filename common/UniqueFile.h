// Sole owner of a stdio stream: closes it when destroyed or reset; moves, never copies.
#ifndef TAVO_COMMON_UNIQUE_FILE_H
#define TAVO_COMMON_UNIQUE_FILE_H

#include <cstdio>

class UniqueFile {
public:
    UniqueFile() = default;
    explicit UniqueFile(FILE* file) : mFile(file) {}
    ~UniqueFile() { reset(); }
    UniqueFile(UniqueFile&& other) noexcept : mFile(other.mFile) { other.mFile = nullptr; }
    UniqueFile& operator=(UniqueFile&& other) noexcept {
        if (this != &other) {
            reset(other.mFile);
            other.mFile = nullptr;
        }
        return *this;
    }
    UniqueFile(const UniqueFile&) = delete;
    UniqueFile& operator=(const UniqueFile&) = delete;

    FILE* get() const { return mFile; }
    explicit operator bool() const { return mFile != nullptr; }
    void reset(FILE* file = nullptr) {
        if (mFile != nullptr)
            fclose(mFile);
        mFile = file;
    }

private:
    FILE* mFile = nullptr;
};

#endif  // TAVO_COMMON_UNIQUE_FILE_H
