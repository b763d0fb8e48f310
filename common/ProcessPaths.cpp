#include "ProcessPaths.h"

#include <unistd.h>

#include <climits>

std::string executableDirectory() {
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (length <= 0)
        return ".";
    path[length] = '\0';
    const std::string full(path);
    const size_t slash = full.rfind('/');
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
