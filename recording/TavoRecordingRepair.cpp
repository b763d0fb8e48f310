// The exported repair entry point: maps the recording and hands it to the writer's repair.
#include "TavoRecordingRepair.h"

#include <errno.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "RecordingRepair.h"

namespace {

void setMessage(char* message, size_t messageSize, const char* text) {
    if (message == nullptr || messageSize == 0)
        return;
    const size_t size = strlen(text);
    const size_t length = size < messageSize - 1 ? size : messageSize - 1;
    memcpy(message, text, length);
    message[length] = '\0';
}

// The whole input, read when it cannot be mapped (a pipe, for instance). A string holds it:
// its members are instantiated by the C++ library, not exported from this one.
bool readAll(int fd, std::string* bytes) {
    uint8_t block[64 * 1024];
    for (;;) {
        ssize_t got = read(fd, block, sizeof(block));
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return false;
        if (got == 0)
            return true;
        bytes->append(reinterpret_cast<const char*>(block), static_cast<size_t>(got));
    }
}

}  // namespace

int tavo_repair_recording(int inFd, int outFd, char* message, size_t messageSize) {
    struct stat status;
    if (inFd < 0 || fstat(inFd, &status) != 0) {
        setMessage(message, messageSize, "cannot read the recording");
        return TAVO_REPAIR_INPUT_FAILED;
    }
    std::string text;
    int result;
    const size_t size = static_cast<size_t>(status.st_size);
    void* mapping = MAP_FAILED;
    if (S_ISREG(status.st_mode) && size > 0)
        mapping = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, inFd, 0);
    if (mapping != MAP_FAILED) {
        result = repairRecording(static_cast<const uint8_t*>(mapping), size, outFd, &text);
        munmap(mapping, size);
    } else {
        std::string bytes;
        if (lseek(inFd, 0, SEEK_SET) < 0 && errno != ESPIPE) {
            setMessage(message, messageSize, "cannot read the recording");
            return TAVO_REPAIR_INPUT_FAILED;
        }
        if (!readAll(inFd, &bytes)) {
            setMessage(message, messageSize, "cannot read the recording");
            return TAVO_REPAIR_INPUT_FAILED;
        }
        result = repairRecording(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(),
                                 outFd, &text);
    }
    setMessage(message, messageSize, text.c_str());
    return result;
}
