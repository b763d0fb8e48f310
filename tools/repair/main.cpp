// tavo_repair IN OUT: writes a playable copy of a recording that was left without its index
// (the recording process was killed). Exit status 0 when OUT was written; otherwise a
// message on standard error and a non-zero status. IN is never modified.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "TavoRecordingRepair.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: %s IN OUT\n", argv[0]);
        return 2;
    }
    const int in = open(argv[1], O_RDONLY | O_CLOEXEC);
    if (in < 0) {
        perror(argv[1]);
        return 1;
    }
    struct stat inStatus, outStatus;
    if (fstat(in, &inStatus) == 0 && stat(argv[2], &outStatus) == 0 &&
        inStatus.st_dev == outStatus.st_dev && inStatus.st_ino == outStatus.st_ino) {
        fprintf(stderr, "%s: OUT must be another file than IN\n", argv[0]);
        return 1;
    }
    const int out = open(argv[2], O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (out < 0) {
        perror(argv[2]);
        close(in);
        return 1;
    }
    char message[256];
    const int result = tavo_repair_recording(in, out, message, sizeof(message));
    close(in);
    if (close(out) != 0 && result == TAVO_REPAIR_OK) {
        perror(argv[2]);
        return 1;
    }
    if (result != TAVO_REPAIR_OK) {
        fprintf(stderr, "%s: %s: %s\n", argv[0], argv[1], message);
        unlink(argv[2]);
        return 1;
    }
    printf("%s\n", message);
    return 0;
}
