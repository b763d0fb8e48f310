// Fuzz target: the recording repair (tavo_repair_recording, the function behind tavo_repair)
// on arbitrary and truncated files. It must never crash, never change its input, and every
// copy it accepts must be a consistent recording.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "FuzzScratchFile.h"
#include "Mp4BoxReader.h"
#include "Mp4Consistency.h"
#include "TavoRecordingRepair.h"

namespace {

void fail(const char* what, const std::string& detail) {
    fprintf(stderr, "fuzz finding: %s: %s\n", what, detail.c_str());
    abort();
}

void writeAll(int fd, const uint8_t* data, size_t size) {
    while (size > 0) {
        ssize_t written = write(fd, data, size);
        if (written <= 0)
            fail("scratch input", "write failed");
        data += written;
        size -= static_cast<size_t>(written);
    }
}

std::vector<uint8_t> readAll(int fd) {
    std::vector<uint8_t> bytes;
    if (lseek(fd, 0, SEEK_SET) != 0)
        fail("scratch input", "seek failed");
    uint8_t block[65536];
    ssize_t got;
    while ((got = read(fd, block, sizeof(block))) > 0)
        bytes.insert(bytes.end(), block, block + got);
    return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The repair logs what it finds in every file; keep that off the fuzzer's output.
    setenv("TAVO_LOG_FILE", "/dev/null", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static FuzzScratchFile input("repair-in");
    static FuzzScratchFile output("repair-out");

    UniqueFd in = input.openEmpty();
    writeAll(in.get(), data, size);
    // The repair reads from the start of the file, wherever the descriptor stands.
    UniqueFd out = output.openEmpty();

    char message[256];
    const int result = tavo_repair_recording(in.get(), out.get(), message, sizeof(message));

    const std::vector<uint8_t> after = readAll(in.get());
    if (after.size() != size || (size > 0 && memcmp(after.data(), data, size) != 0))
        fail("input modified", message);
    in.reset();
    out.reset();

    if (result == TAVO_REPAIR_OK) {
        const std::string problem = checkMp4Consistency(Mp4File::read(output.path()));
        if (!problem.empty())
            fail("repaired copy inconsistent", problem);
    } else if (result > 0) {
        fail("unknown result", std::to_string(result));
    }
    return 0;
}
