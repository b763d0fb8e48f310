// The exported repair entry point: checks the descriptors, hands the recording to the
// writer's repair, and turns every failure, exceptions included, into a result and a message.
#include "TavoRecordingRepair.h"

#include <sys/stat.h>

#include <cstring>
#include <exception>
#include <new>
#include <string>

#include "Env.h"
#include "RecordingRepair.h"

static_assert(TAVO_REPAIR_MAX_INPUT_SIZE == kRecordingRepairMaxInputSize,
              "the exported input limit is the repair's");
constexpr bool sameResult(int exported, int internal) {
    return exported == internal;
}
static_assert(sameResult(TAVO_REPAIR_NOT_A_RECORDING, RECORDING_REPAIR_NOT_A_RECORDING) &&
                  sameResult(TAVO_REPAIR_NO_RECORDS, RECORDING_REPAIR_NO_RECORDS) &&
                  sameResult(TAVO_REPAIR_NOTHING_RECOVERABLE,
                             RECORDING_REPAIR_NOTHING_RECOVERABLE) &&
                  sameResult(TAVO_REPAIR_OUTPUT_FAILED, RECORDING_REPAIR_OUTPUT_FAILED) &&
                  sameResult(TAVO_REPAIR_INPUT_FAILED, RECORDING_REPAIR_INPUT_FAILED),
              "the exported results are the repair's");

namespace {

void setMessage(char* message, size_t messageSize, const char* text) {
    if (message == nullptr || messageSize == 0)
        return;
    const size_t size = strlen(text);
    const size_t length = size < messageSize - 1 ? size : messageSize - 1;
    memcpy(message, text, length);
    message[length] = '\0';
}

// Checks both descriptors; returns 0 and the input's size, or a result with its message.
int checkDescriptors(int inFd, int outFd, uint64_t* inputSize, const char** text) {
    struct stat status;
    if (inFd < 0 || fstat(inFd, &status) != 0) {
        *text = "cannot read the recording";
        return TAVO_REPAIR_INPUT_FAILED;
    }
    if (!S_ISREG(status.st_mode)) {
        *text = "cannot repair the recording: it is not a regular file";
        return TAVO_REPAIR_INPUT_FAILED;
    }
    if (status.st_size < 0 ||
        static_cast<unsigned long long>(status.st_size) > TAVO_REPAIR_MAX_INPUT_SIZE) {
        *text = "cannot repair the recording: it is larger than 2147483647 bytes";
        return TAVO_REPAIR_INPUT_FAILED;
    }
    *inputSize = static_cast<uint64_t>(status.st_size);
    if (outFd < 0 || fstat(outFd, &status) != 0 || !S_ISREG(status.st_mode) ||
        status.st_size != 0) {
        *text = "cannot write the repaired copy: the output is not an empty regular file";
        return TAVO_REPAIR_OUTPUT_FAILED;
    }
    return 0;
}

}  // namespace

int tavo_repair_recording(int inFd, int outFd, char* message, size_t messageSize) {
    // Nothing may leave through this C interface but a result: out of memory, or any other
    // failure inside the repair, becomes TAVO_REPAIR_INTERNAL_ERROR.
    try {
        uint64_t size = 0;
        const char* refusal = nullptr;
        const int checked = checkDescriptors(inFd, outFd, &size, &refusal);
        if (checked != 0) {
            setMessage(message, messageSize, refusal);
            return checked;
        }
        std::string text;
        // The repair is an entry point of its own, outside init: it reads the current Env
        // once, like init does.
        const int result = repairRecording(inFd, size, outFd, &text, Env::current());
        setMessage(message, messageSize, text.c_str());
        return result;
    } catch (const std::bad_alloc&) {
        setMessage(message, messageSize, "cannot repair the recording: out of memory");
    } catch (...) {
        setMessage(message, messageSize, "cannot repair the recording: internal error");
    }
    return TAVO_REPAIR_INTERNAL_ERROR;
}
