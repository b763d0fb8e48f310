#include "OpenDescriptors.h"

#include <dirent.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

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
