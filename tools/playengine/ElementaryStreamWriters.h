// Turn the items of a frame into playable elementary streams:
//   AnnexBWriter  H.264 NAL units, each preceded again by a 4-byte start code (00 00 00 01);
//   AdtsWriter    AAC frames as they are stored, each already behind its 7-byte ADTS header.
// Each writes one frame's items with a single write from a buffer allocated once.
//
// Threads: one session reader's thread.
#ifndef TAVO_TOOLS_PLAYENGINE_ELEMENTARY_STREAM_WRITERS_H
#define TAVO_TOOLS_PLAYENGINE_ELEMENTARY_STREAM_WRITERS_H

#include <cstdint>
#include <memory>

#include "CmmbSharedBuffer.h"
#include "StreamOutput.h"

// The item a record describes, or null when it does not lie inside the frame's payload.
const unsigned char* payloadItem(const CmmbSharedBuffer& frame, uint32_t offset, uint32_t length);

class AnnexBWriter {
public:
    explicit AnnexBWriter(StreamOutput* output);
    // Writes the frame's complete NAL units; returns how many were valid.
    int writeFrame(const CmmbSharedBuffer& frame);

private:
    StreamOutput* mOutput;
    std::unique_ptr<unsigned char[]> mBuffer;  // payload plus a start code per record
};

class AdtsWriter {
public:
    explicit AdtsWriter(StreamOutput* output);
    // Writes the frame's AAC frames; returns how many were valid.
    int writeFrame(const CmmbSharedBuffer& frame);

private:
    StreamOutput* mOutput;
    std::unique_ptr<unsigned char[]> mBuffer;  // payload size
};

#endif  // TAVO_TOOLS_PLAYENGINE_ELEMENTARY_STREAM_WRITERS_H
