// Reading a whole file into memory.
#ifndef TAVO_COMMON_WHOLE_FILE_H
#define TAVO_COMMON_WHOLE_FILE_H

#include <cstdio>
#include <string>

#include "UniqueHandle.h"

// Replaces the contents of `bytes` (a std::string or a std::vector of a byte type) with the
// file's. False when the file cannot be opened or read.
template <typename Bytes>
bool readWholeFile(const std::string& path, Bytes* bytes) {
    UniqueFile file(fopen(path.c_str(), "rb"));
    if (!file)
        return false;
    bytes->clear();
    unsigned char chunk[16384];
    size_t count;
    while ((count = fread(chunk, 1, sizeof(chunk), file.get())) > 0)
        bytes->insert(bytes->end(), chunk, chunk + count);
    return ferror(file.get()) == 0;
}

#endif  // TAVO_COMMON_WHOLE_FILE_H
