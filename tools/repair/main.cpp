// tavo_repair [--force] IN OUT: writes a playable copy of a recording that was left without
// its index (the recording process was killed). IN is never modified. The copy is made in a
// temporary file beside OUT and renamed to OUT only when it is complete, so a failed repair
// leaves nothing behind. An existing OUT is replaced only with --force, and only when it is
// a regular file other than IN.
//
// Exit status: 0 when OUT was written, 1 when the repair or the output failed (with a
// message on standard error), 2 on bad usage.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "OutputFile.h"
#include "TavoMBBMSVersion.h"
#include "TavoRecordingRepair.h"
#include "UniqueHandle.h"

namespace {

const char kProgram[] = "tavo_repair";

const char kUsage[] =
    "usage: tavo_repair [--force] IN OUT\n"
    "\n"
    "Writes a playable copy of the recording IN, which was left without its index (for\n"
    "example because the recording process was killed), to OUT. IN is never modified.\n"
    "The copy is written to a temporary file beside OUT and renamed to OUT once complete;\n"
    "when the repair fails, no OUT and no temporary file are left.\n"
    "\n"
    "  -f, --force    replace OUT if it exists (only a regular file is ever replaced)\n"
    "  -h, --help     show this help and exit\n"
    "      --version  show the version and exit\n"
    "\n"
    "Exit status: 0 when OUT was written, 1 when the repair failed, 2 on bad usage.\n";

struct Arguments {
    bool force = false;
    const char* in = nullptr;
    const char* out = nullptr;
};

// Returns -1 to go on, or the exit status when the command line was answered or refused.
int parseArguments(int argc, char** argv, Arguments* arguments) {
    int positional = 0;
    bool options = true;
    for (int i = 1; i < argc; ++i) {
        const char* argument = argv[i];
        if (options && strcmp(argument, "--") == 0) {
            options = false;
        } else if (options && (strcmp(argument, "--help") == 0 || strcmp(argument, "-h") == 0)) {
            fputs(kUsage, stdout);
            return 0;
        } else if (options && strcmp(argument, "--version") == 0) {
            printf("%s %s\n", kProgram, TAVOMBBMS_VERSION_STRING);
            return 0;
        } else if (options && (strcmp(argument, "--force") == 0 || strcmp(argument, "-f") == 0)) {
            arguments->force = true;
        } else if (options && argument[0] == '-' && argument[1] != '\0') {
            fprintf(stderr, "%s: unknown option %s\n%s", kProgram, argument, kUsage);
            return 2;
        } else if (positional == 0) {
            arguments->in = argument;
            ++positional;
        } else if (positional == 1) {
            arguments->out = argument;
            ++positional;
        } else {
            fprintf(stderr, "%s: too many arguments\n%s", kProgram, kUsage);
            return 2;
        }
    }
    if (positional != 2) {
        fprintf(stderr, "%s: IN and OUT are needed\n%s", kProgram, kUsage);
        return 2;
    }
    return -1;
}

int failure(const std::string& text) {
    fprintf(stderr, "%s: %s\n", kProgram, text.c_str());
    return 1;
}

// Opens IN for reading, refusing anything but a regular file. A FIFO is opened without
// waiting for a writer, so that it can be refused.
int openRecording(const char* path, UniqueFd* fd, struct stat* status) {
    fd->reset(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!fd->valid())
        return failure(std::string(path) + ": " + strerror(errno));
    if (fstat(fd->get(), status) != 0)
        return failure(std::string(path) + ": " + strerror(errno));
    if (!S_ISREG(status->st_mode))
        return failure(std::string(path) + ": not a regular file");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    Arguments arguments;
    const int answered = parseArguments(argc, argv, &arguments);
    if (answered >= 0)
        return answered;

    UniqueFd in;
    struct stat inStatus;
    if (openRecording(arguments.in, &in, &inStatus) != 0)
        return 1;
    OutputFile out(arguments.out, arguments.force, inStatus);
    std::string error;
    if (!out.create(&error))
        return failure(error);

    char message[256];
    const int result = tavo_repair_recording(in.get(), out.fd(), message, sizeof(message));
    if (result != TAVO_REPAIR_OK)
        return failure(std::string(arguments.in) + ": " + message);
    if (!out.publish(&error))
        return failure(error);
    if (!out.warning().empty())
        fprintf(stderr, "%s: %s\n", kProgram, out.warning().c_str());
    printf("%s\n", message);
    return 0;
}
