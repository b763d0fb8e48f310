// Receiver of the multiplex frames a SessionReader copies out of its shared buffer.
#ifndef TAVO_TOOLS_PLAYENGINE_FRAME_CONSUMER_H
#define TAVO_TOOLS_PLAYENGINE_FRAME_CONSUMER_H

#include <cstdint>

#include "CmmbSharedBuffer.h"

class FrameConsumer {
public:
    virtual ~FrameConsumer() {}
    // Called on the reader's thread, outside the buffer's lock, with a private copy of one
    // frame that holds only the records whose items lie inside the payload (at most 256 of
    // each kind, their items packed into dataLength bytes). badRecords: how many records of
    // the shared frame were left out because they pointed outside it.
    virtual void consume(const CmmbSharedBuffer& frame, uint32_t badRecords) = 0;
};

#endif  // TAVO_TOOLS_PLAYENGINE_FRAME_CONSUMER_H
