#include "DemoFiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "UniqueHandle.h"
#include "WholeFile.h"

namespace demofiles {

namespace {

// Writes all of `bytes` to a file opened with `mode`; true when they all reached the file.
bool writeWholeFile(const std::string& path, const char* mode, const std::string& bytes) {
    UniqueFile out(fopen(path.c_str(), mode));
    if (!out)
        return false;
    const bool written = fwrite(bytes.data(), 1, bytes.size(), out.get()) == bytes.size();
    // Flushed here so that a failed write shows; the handle only closes the stream.
    return fflush(out.get()) == 0 && written;
}

}  // namespace

bool makeDirectories(const std::string& path) {
    std::string partial;
    size_t start = 0;
    while (start <= path.size()) {
        size_t slash = path.find('/', start);
        if (slash == std::string::npos)
            slash = path.size();
        partial = path.substr(0, slash);
        if (!partial.empty() && mkdir(partial.c_str(), 0777) != 0 && errno != EEXIST)
            return false;
        start = slash + 1;
    }
    return isDirectory(path);
}

bool copyFile(const std::string& from, const std::string& to) {
    std::string bytes;
    if (!readFile(from, &bytes))
        return false;
    std::string temporary = to + ".part";
    if (!writeWholeFile(temporary, "wb", bytes))
        return false;
    struct stat info;
    if (stat(from.c_str(), &info) == 0)
        chmod(temporary.c_str(), info.st_mode & 0777);
    // Renamed into place: a library that a running process has mapped is replaced, not
    // overwritten under it.
    return rename(temporary.c_str(), to.c_str()) == 0;
}

bool writeTextFile(const std::string& path, const std::string& text) {
    return writeWholeFile(path, "w", text);
}

bool readFile(const std::string& path, std::string* bytes) {
    return readWholeFile(path, bytes);
}

long long fileSize(const std::string& path) {
    struct stat info;
    if (stat(path.c_str(), &info) != 0)
        return -1;
    return static_cast<long long>(info.st_size);
}

bool isDirectory(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool isExecutable(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
           access(path.c_str(), X_OK) == 0;
}

std::vector<std::string> listDirectory(const std::string& path) {
    std::vector<std::string> names;
    const UniqueDir dir(opendir(path.c_str()));
    if (!dir)
        return names;
    while (struct dirent* entry = readdir(dir.get())) {
        std::string name = entry->d_name;
        if (name != "." && name != "..")
            names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace demofiles
