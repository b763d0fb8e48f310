// Repair of recordings left without their index, for example by a process that was killed
// while it recorded. An application can call it when it starts, for each recording that it
// had not seen stopped.
//
// The engine's recordings carry small repair records inside their media data (the system
// property "persist.mbbms.record.repair" turns them off; they are on by default). From
// them tavo_repair_recording writes a complete, playable copy holding every sample whose
// chunk reached the file: all but about the last second before the process died.
#ifndef TAVO_RECORDING_REPAIR_H
#define TAVO_RECORDING_REPAIR_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

// Results of tavo_repair_recording.
enum {
    TAVO_REPAIR_OK = 0,
    TAVO_REPAIR_NOT_A_RECORDING = -1,      // not a file of this engine's recorder
    TAVO_REPAIR_NO_RECORDS = -2,           // recorded without repair records
    TAVO_REPAIR_NOTHING_RECOVERABLE = -3,  // no complete chunk, or a track without samples
    TAVO_REPAIR_OUTPUT_FAILED = -4,        // the copy could not be written
    TAVO_REPAIR_INPUT_FAILED = -5,         // not a regular file, too large, or unreadable
                                           // (for instance it shrank while it was read)
    TAVO_REPAIR_INTERNAL_ERROR = -6,       // out of memory, or another failure inside
};

// The largest recording taken, in bytes: the recorder's files stay below 2 GiB.
#define TAVO_REPAIR_MAX_INPUT_SIZE 2147483647ULL

// Reads the recording from inFd (from its start, with positioned reads; the file is never
// modified or mapped) and writes the repaired copy to outFd, which must be an empty regular
// file open for writing and reading. Both descriptors stay the caller's. When `message` is
// not null, it receives a one-line, NUL-terminated explanation (cut to messageSize bytes).
//
// Safe for any input: inFd must be a regular file of at most TAVO_REPAIR_MAX_INPUT_SIZE
// bytes (pipes, devices and directories are refused); a file that shrinks while it is read
// gives TAVO_REPAIR_INPUT_FAILED; memory stays within a small multiple of the input's size
// whatever its contents claim; no exception leaves the function. On failure outFd may hold
// a partial copy, which the caller discards.
__attribute__((visibility("default"))) int tavo_repair_recording(int inFd, int outFd, char* message,
                                                                 size_t messageSize);

#ifdef __cplusplus
}
#endif

#endif  // TAVO_RECORDING_REPAIR_H
