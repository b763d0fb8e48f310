// Rebuilds a playable file from a recording whose moov is missing or damaged, using the
// repair records the writer put in front of every chunk (RepairRecord.h). The samples are
// replayed into a fresh CmmbMPEG4Writer, so the copy is laid out and indexed exactly like a
// recording that was stopped normally. Robust against any input: every length and count
// read from the file is checked against the file before it is used.
#ifndef TAVO_MP4WRITER_RECORDING_REPAIR_H
#define TAVO_MP4WRITER_RECORDING_REPAIR_H

#include <cstddef>
#include <cstdint>
#include <string>

// Results; 0 is success.
enum {
    RECORDING_REPAIR_NOT_A_RECORDING = -1,  // no ftyp and mdat at the start
    RECORDING_REPAIR_NO_RECORDS = -2,       // no repair records to rebuild from
    RECORDING_REPAIR_NOTHING_RECOVERABLE = -3,
    RECORDING_REPAIR_OUTPUT_FAILED = -4,  // the copy could not be written
};

// Writes the repaired copy of the `size` bytes at `file` to outFd (which the caller keeps;
// it is written from its current position, which must be the start of an empty file).
// `message` receives one line saying what happened.
int repairRecording(const uint8_t* file, size_t size, int outFd, std::string* message);

#endif  // TAVO_MP4WRITER_RECORDING_REPAIR_H
