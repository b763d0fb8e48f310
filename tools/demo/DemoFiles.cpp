#include "DemoFiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>

namespace demofiles {

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
    FILE* out = fopen(temporary.c_str(), "wb");
    if (out == nullptr)
        return false;
    bool ok = fwrite(bytes.data(), 1, bytes.size(), out) == bytes.size();
    ok = fclose(out) == 0 && ok;
    struct stat info;
    if (ok && stat(from.c_str(), &info) == 0)
        chmod(temporary.c_str(), info.st_mode & 0777);
    // Renamed into place: a library that a running process has mapped is replaced, not
    // overwritten under it.
    return ok && rename(temporary.c_str(), to.c_str()) == 0;
}

bool writeTextFile(const std::string& path, const std::string& text) {
    FILE* out = fopen(path.c_str(), "w");
    if (out == nullptr)
        return false;
    bool ok = fwrite(text.data(), 1, text.size(), out) == text.size();
    return fclose(out) == 0 && ok;
}

bool readFile(const std::string& path, std::string* bytes) {
    FILE* in = fopen(path.c_str(), "rb");
    if (in == nullptr)
        return false;
    bytes->clear();
    char chunk[65536];
    size_t n;
    while ((n = fread(chunk, 1, sizeof(chunk), in)) > 0)
        bytes->append(chunk, n);
    bool ok = ferror(in) == 0;
    fclose(in);
    return ok;
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
    DIR* dir = opendir(path.c_str());
    if (dir == nullptr)
        return names;
    while (struct dirent* entry = readdir(dir)) {
        std::string name = entry->d_name;
        if (name != "." && name != "..")
            names.push_back(name);
    }
    closedir(dir);
    std::sort(names.begin(), names.end());
    return names;
}

std::string executableDirectory() {
    char path[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (n <= 0)
        return ".";
    path[n] = '\0';
    std::string full(path);
    size_t slash = full.rfind('/');
    return slash == std::string::npos ? "." : full.substr(0, slash);
}

std::string absolutePath(const std::string& path) {
    if (!path.empty() && path[0] == '/')
        return path;
    char cwd[PATH_MAX];
    if (getcwd(cwd, sizeof(cwd)) == nullptr)
        return path;
    return std::string(cwd) + "/" + path;
}

}  // namespace demofiles
