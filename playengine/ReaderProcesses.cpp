#include "ReaderProcesses.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "UniqueFd.h"

void ReaderProcesses::add(pid_t pid) {
    for (int i = 0; i < mCount; ++i) {
        if (mPids[i] == pid)
            return;
    }
    if (mCount == CAPACITY)
        anyAlive();  // make room by forgetting the processes that are gone
    if (mCount == CAPACITY) {
        mOverflowed = true;
        return;
    }
    mPids[mCount++] = pid;
}

bool ReaderProcesses::anyAlive() {
    int kept = 0;
    for (int i = 0; i < mCount; ++i) {
        if (alive(mPids[i]))
            mPids[kept++] = mPids[i];
    }
    mCount = kept;
    return mCount > 0 || mOverflowed;
}

bool ReaderProcesses::alive(pid_t pid) {
    if (pid <= 0)
        return false;
    if (kill(pid, 0) != 0 && errno == ESRCH)
        return false;
    // Known to the system; a zombie (or a dead task not yet gone) holds no lock any more.
    // Where /proc hides other users' processes, the process counts as alive.
    char path[32];
    snprintf(path, sizeof(path), "/proc/%d/stat", static_cast<int>(pid));
    UniqueFd stat(open(path, O_RDONLY | O_CLOEXEC));
    if (!stat.valid())
        return errno != ENOENT;
    char text[256];
    const ssize_t length = read(stat.get(), text, sizeof(text) - 1);
    if (length <= 0)
        return true;
    text[length] = '\0';
    // "pid (command) state ...": the command may itself hold parentheses.
    const char* close = strrchr(text, ')');
    if (close == nullptr || close[1] != ' ')
        return true;
    const char state = close[2];
    return state != 'Z' && state != 'X' && state != 'x';
}
