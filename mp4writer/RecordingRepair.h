// Rebuilds a playable file from a recording whose moov is missing or damaged, using the
// repair records the writer put in front of every chunk (RepairRecord.h). The samples are
// replayed into a fresh CmmbMPEG4Writer, so the copy is laid out and indexed exactly like a
// recording that was stopped normally.
//
// The recording is read with positioned reads, never mapped (RepairInput.h), in two walks
// over its records (RepairRecordWalker.h): the first checks them and finds the configuration
// to write, the second replays the samples straight into the writer. No sample list is kept:
// memory is the record being read, one sample, and the copy's index, which the sample budget
// of the walk and the copy's size limit (the input's size plus a quarter) bound by the size
// of the input. Robust against any input, including one that changes while it is read.
#ifndef TAVO_MP4WRITER_RECORDING_REPAIR_H
#define TAVO_MP4WRITER_RECORDING_REPAIR_H

#include <cstdint>
#include <string>

class Env;

// Results; 0 is success.
enum {
    RECORDING_REPAIR_NOT_A_RECORDING = -1,  // no ftyp and mdat at the start
    RECORDING_REPAIR_NO_RECORDS = -2,       // no repair records to rebuild from
    RECORDING_REPAIR_NOTHING_RECOVERABLE = -3,
    RECORDING_REPAIR_OUTPUT_FAILED = -4,  // the copy could not be written
    RECORDING_REPAIR_INPUT_FAILED =
        -5,  // the input is too large, or shrank or failed as it was read
};

// The largest input taken: the writer's files end below 2 GiB (their positions are 32-bit).
const uint64_t kRecordingRepairMaxInputSize = 2147483647;

// Writes the repaired copy of the first `size` bytes of inFd (read with pread; the
// descriptor's position is not used) to outFd, from outFd's current position, which must be
// the start of an empty file, writing through `env`. Both descriptors stay the caller's.
// `message` receives one line saying what happened. May throw std::bad_alloc when memory runs
// out.
int repairRecording(int inFd, uint64_t size, int outFd, std::string* message, Env* env);

#endif  // TAVO_MP4WRITER_RECORDING_REPAIR_H
