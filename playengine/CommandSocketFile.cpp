#include "CommandSocketFile.h"

#include <errno.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstring>

#include "Properties.h"

namespace {

// Calls `parse` with each decimal number in the property's value; stops when it returns true.
template <typename Visit>
bool anyListedUid(Visit visit) {
    char value[PROPERTY_VALUE_MAX];
    property_get(TAVO_PLAYENGINE_UIDS_PROPERTY, value, "");
    const char* cursor = value;
    while (*cursor != '\0') {
        char* end = nullptr;
        const unsigned long listed = strtoul(cursor, &end, 10);
        if (end == cursor) {
            ++cursor;  // a separator
            continue;
        }
        if (visit(listed))
            return true;
        cursor = end;
    }
    return false;
}

// Writes "<dir>/.XXXXXX" for the directory of `path` into `out`; false when it does not fit.
bool privateDirectoryTemplate(const char* path, char* out, size_t size) {
    const char* slash = strrchr(path, '/');
    const int dirLength = slash == nullptr ? 1 : static_cast<int>(slash - path);
    const char* dir = slash == nullptr ? "." : path;
    const int written = snprintf(out, size, "%.*s/.XXXXXX", slash == path ? 0 : dirLength, dir);
    return written > 0 && static_cast<size_t>(written) < size;
}

}  // namespace

bool uidListedAsPlayEngine(uid_t uid) {
    return anyListedUid(
        [uid](unsigned long listed) { return listed == static_cast<unsigned long>(uid); });
}

mode_t commandSocketMode() {
    return anyListedUid([](unsigned long) { return true; }) ? 0666 : 0660;
}

int bindCommandSocket(int socketFd, const char* path, mode_t mode) {
    sockaddr_un address;
    memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    char directory[sizeof(address.sun_path)];
    if (!privateDirectoryTemplate(path, directory, sizeof(directory))) {
        errno = ENAMETOOLONG;
        return -1;
    }
    // "<dir>/.XXXXXX/s" is no longer than "<dir>/cmmb.socket"; check all the same.
    const int written = snprintf(address.sun_path, sizeof(address.sun_path), "%s/s", directory);
    if (written <= 0 || static_cast<size_t>(written) >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    if (mkdtemp(directory) == nullptr)  // mode 0700
        return -1;
    // mkdtemp filled in the name, which has the template's length.
    memcpy(address.sun_path, directory, strlen(directory));

    const socklen_t length =
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(address.sun_path));
    int result = bind(socketFd, reinterpret_cast<sockaddr*>(&address), length);
    if (result == 0)
        result = chmod(address.sun_path, mode);
    if (result == 0)
        result = rename(address.sun_path, path);
    const int error = errno;
    if (result != 0)
        unlink(address.sun_path);
    rmdir(directory);
    errno = error;
    return result;
}
