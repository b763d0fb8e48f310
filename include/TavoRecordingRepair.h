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
    TAVO_REPAIR_INPUT_FAILED = -5,         // the recording could not be read
};

// Reads the recording from inFd (from its start; the file is never modified) and writes the
// repaired copy to outFd, which must be an empty regular file open for writing and reading.
// Both descriptors stay the caller's. When `message` is not null, it receives a one-line,
// NUL-terminated explanation (cut to messageSize bytes). Safe for any input.
__attribute__((visibility("default"))) int tavo_repair_recording(int inFd, int outFd, char* message,
                                                                 size_t messageSize);

#ifdef __cplusplus
}
#endif

#endif  // TAVO_RECORDING_REPAIR_H
