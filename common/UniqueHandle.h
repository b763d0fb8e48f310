// Sole owner of one operating-system resource: releases it when destroyed or reset; moves,
// never copies.
//
// What the resource is and how it is released is given by a traits type:
//   using Value = ...;                        // what the handle holds
//   static Value null();                      // the value of an empty handle
//   static bool isValid(const Value& value);  // false for every empty value
//   static void close(const Value& value);    // releases a valid value
// The aliases below name the handles the project uses: descriptors, mappings, stdio streams,
// directory streams and loaded shared libraries.
#ifndef TAVO_COMMON_UNIQUE_HANDLE_H
#define TAVO_COMMON_UNIQUE_HANDLE_H

#include <dirent.h>
#include <dlfcn.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <utility>

template <typename Traits>
class UniqueHandle {
public:
    using Value = typename Traits::Value;

    UniqueHandle() = default;
    explicit UniqueHandle(Value value) : mValue(std::move(value)) {}
    ~UniqueHandle() { reset(); }
    UniqueHandle(UniqueHandle&& other) noexcept : mValue(other.release()) {}
    UniqueHandle& operator=(UniqueHandle&& other) noexcept {
        if (this != &other)
            reset(other.release());
        return *this;
    }
    UniqueHandle(const UniqueHandle&) = delete;
    UniqueHandle& operator=(const UniqueHandle&) = delete;

    const Value& get() const { return mValue; }
    bool valid() const { return Traits::isValid(mValue); }
    explicit operator bool() const { return valid(); }

    // Gives the resource up without releasing it; the handle is empty afterwards.
    Value release() {
        Value value = std::move(mValue);
        mValue = Traits::null();
        return value;
    }
    // Releases the resource held, if any, and takes `value` instead.
    void reset(Value value = Traits::null()) {
        if (Traits::isValid(mValue))
            Traits::close(mValue);
        mValue = std::move(value);
    }

private:
    Value mValue = Traits::null();
};

// A file descriptor; -1 when empty.
struct FdTraits {
    using Value = int;
    static int null() { return -1; }
    static bool isValid(int fd) { return fd >= 0; }
    static void close(int fd) { ::close(fd); }
};
using UniqueFd = UniqueHandle<FdTraits>;

// A memory mapping made with mmap: where it starts and how long it is.
struct Mapping {
    void* address = nullptr;
    size_t length = 0;
};
struct MappingTraits {
    using Value = Mapping;
    static Mapping null() { return Mapping{}; }
    static bool isValid(const Mapping& mapping) { return mapping.address != nullptr; }
    static void close(const Mapping& mapping) { ::munmap(mapping.address, mapping.length); }
};
using UniqueMapping = UniqueHandle<MappingTraits>;

// A stdio stream.
struct FileTraits {
    using Value = FILE*;
    static FILE* null() { return nullptr; }
    static bool isValid(FILE* file) { return file != nullptr; }
    static void close(FILE* file) { ::fclose(file); }
};
using UniqueFile = UniqueHandle<FileTraits>;

// A directory stream opened with opendir.
struct DirTraits {
    using Value = DIR*;
    static DIR* null() { return nullptr; }
    static bool isValid(DIR* dir) { return dir != nullptr; }
    static void close(DIR* dir) { ::closedir(dir); }
};
using UniqueDir = UniqueHandle<DirTraits>;

// A shared library opened with dlopen.
struct LibraryTraits {
    using Value = void*;
    static void* null() { return nullptr; }
    static bool isValid(void* library) { return library != nullptr; }
    static void close(void* library) { ::dlclose(library); }
};
using UniqueLibrary = UniqueHandle<LibraryTraits>;

#endif  // TAVO_COMMON_UNIQUE_HANDLE_H
