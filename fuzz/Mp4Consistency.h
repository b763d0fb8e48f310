// Consistency of a finished recording, read with the project's box reader: every sample
// that the tables locate lies inside mdat, chunks do not overlap and mdat holds nothing but
// them and intact repair records, the tables agree on the number of samples, sync samples
// are ascending and in range, and the movie, track and media durations agree.
#ifndef TAVO_FUZZ_MP4_CONSISTENCY_H
#define TAVO_FUZZ_MP4_CONSISTENCY_H

#include <string>

#include "Mp4BoxReader.h"

struct Mp4ConsistencyOptions {
    // Compare the durations of mvhd, tkhd and mdhd. Off when the recorded times may be so
    // large that the 32-bit header fields wrap.
    bool checkDurations = true;
};

// "" when the file is consistent, otherwise the first inconsistency found.
std::string checkMp4Consistency(const Mp4File& file,
                                const Mp4ConsistencyOptions& options = Mp4ConsistencyOptions());

#endif  // TAVO_FUZZ_MP4_CONSISTENCY_H
