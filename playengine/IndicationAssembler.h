// Reassembles the 64-byte indication messages of one play-engine connection from a byte
// stream. A stream socket keeps no message boundaries: a message written in pieces arrives
// in pieces, and a short or oversized write shifts everything after it. Every 64 bytes of the
// stream are therefore one indication, whatever the writes were.
//
// Usage, per receive: read at most freeSpace() bytes into freeSpaceStart(), pass the count
// to received(); when it returns true, message() holds a whole indication. Reading no more
// than freeSpace() means a receive never takes bytes of the next message.
//
// Threads: the command thread alone; one assembler per connection (reset() when a
// connection starts). No allocation.
#ifndef TAVO_PLAYENGINE_INDICATION_ASSEMBLER_H
#define TAVO_PLAYENGINE_INDICATION_ASSEMBLER_H

#include <cstddef>

#include "PlayEngineProtocol.h"

class IndicationAssembler {
public:
    IndicationAssembler() { reset(); }

    // Forgets a partial message (a new connection starts).
    void reset();
    char* freeSpaceStart();
    // Room left in the message being assembled (a whole message once one was handed out).
    size_t freeSpace() const {
        return mFilled == sizeof(mMessage) ? sizeof(mMessage) : sizeof(mMessage) - mFilled;
    }
    // `count` bytes were stored at freeSpaceStart(). True when a message is complete; it stays
    // readable through message() until the next call.
    bool received(size_t count);
    const PlayEngineIndicationMessage& message() const { return mMessage; }

private:
    PlayEngineIndicationMessage mMessage;
    size_t mFilled;  // bytes of mMessage received so far
};

#endif  // TAVO_PLAYENGINE_INDICATION_ASSEMBLER_H
