// Appending raw AAC frames to one shared buffer, each behind a 7-byte ADTS header. Where
// they go is decided from the engine's own BufferWriteState, never from the region.
// Agent thread only, inside the frame bracket, with the buffer's mutexDataAccessable held.
#ifndef TAVO_SHAREDBUFFER_AAC_INGESTION_H
#define TAVO_SHAREDBUFFER_AAC_INGESTION_H

#include <cstdint>

#include "BufferWriteState.h"
#include "CmmbSharedBuffer.h"

// Writes the fixed ADTS header (MPEG-2 AAC LC, 24,000 Hz, two channels, no CRC) for a frame
// of frameLength bytes including the header; exact for frames shorter than 2,048 bytes.
void writeAdtsHeader(unsigned char* out, uint32_t frameLength);

// Appends one frame to the buffer of `session`, whose write state is `state`, and publishes
// its record, the payload length and the count. Returns false when it was dropped (no space
// or no record left); the drop has been logged as a line of `caller`. Allocates nothing.
bool appendAacFrame(CmmbSharedBuffer* buffer, BufferWriteState& state, int session,
                    unsigned long tsBase, unsigned long tsRelative, const unsigned char* data,
                    unsigned short length, const char* caller);

// Appends one frame to each of `count` targets in turn, as appendAacFrame does; a drop for
// one target ends the frame for the targets after it too.
void appendAacFrameToTargets(const FrameTarget* targets, int count, unsigned long tsBase,
                             unsigned long tsRelative, const unsigned char* data,
                             unsigned short length, const char* caller);

#endif  // TAVO_SHAREDBUFFER_AAC_INGESTION_H
