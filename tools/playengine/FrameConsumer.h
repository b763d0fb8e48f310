// Receiver of the multiplex frames a SessionReader copies out of its shared buffer.
#ifndef TAVO_TOOLS_PLAYENGINE_FRAME_CONSUMER_H
#define TAVO_TOOLS_PLAYENGINE_FRAME_CONSUMER_H

#include "CmmbSharedBuffer.h"

class FrameConsumer {
public:
    virtual ~FrameConsumer() {}
    // Called on the reader's thread, outside the buffer's lock, with a private copy of one
    // frame: nalCount and aacCount records (at most 256 each) and dataLength payload bytes
    // (at most 65,536). Records may point outside the payload if the writer misbehaved.
    virtual void consume(const CmmbSharedBuffer& frame) = 0;
};

#endif  // TAVO_TOOLS_PLAYENGINE_FRAME_CONSUMER_H
