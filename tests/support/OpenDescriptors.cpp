#include "OpenDescriptors.h"

#include <dirent.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>

#include "TestRoot.h"

int openDescriptors(const char* targetContains) {
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr)
        return -1;
    int count = 0;
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.' || atoi(entry->d_name) == dirfd(dir))
            continue;
        if (targetContains == nullptr) {
            ++count;
            continue;
        }
        char target[256] = {};
        if (readlinkat(dirfd(dir), entry->d_name, target, sizeof(target) - 1) > 0 &&
            strstr(target, targetContains) != nullptr)
            ++count;
    }
    closedir(dir);
    return count;
}

int threadCount(const char* named) {
    DIR* dir = opendir("/proc/self/task");
    if (dir == nullptr)
        return -1;
    int count = 0;
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.')
            continue;
        if (named == nullptr) {
            ++count;
            continue;
        }
        std::string name = readTextFile(std::string("/proc/self/task/") + entry->d_name + "/comm");
        if (!name.empty() && name.back() == '\n')
            name.pop_back();
        count += name == named;
    }
    closedir(dir);
    return count;
}

int threadCountSettledAt(int expected, const char* named) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    int count = threadCount(named);
    while (count != expected && std::chrono::steady_clock::now() < deadline) {
        usleep(1000);
        count = threadCount(named);
    }
    return count;
}
