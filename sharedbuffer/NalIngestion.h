// Appending H.264 NAL units, delivered whole or in fragments, to one shared buffer.
//
// The fragment state of a buffer is the pos of its NAL record at index nalCount: 3 when no
// unit is open, 2 or 0 while a unit is being assembled. The engine keeps that state, the
// counts and the payload length in its own BufferWriteState and only writes them into the
// region, so a reader that rewrites the region cannot steer where bytes go. Units are stored
// without their Annex B start code. Agent thread only, inside the frame bracket, with the
// buffer's mutexDataAccessable held by the frame hand-off.
#ifndef TAVO_SHAREDBUFFER_NAL_INGESTION_H
#define TAVO_SHAREDBUFFER_NAL_INGESTION_H

#include "BufferWriteState.h"
#include "CmmbSharedBuffer.h"

// Length of the Annex B start code at the beginning of data: 3 for 00 00 01, 4 for
// 00 00 00 01, 0 when there is none.
int getStartCodeLength(const unsigned char* data, int length);

// Appends one fragment (pos: MBBMSAgent::NAL_FRAGMENT_POS_IND) to the buffer of `session`,
// whose write state is `state`, and publishes the changed record, length and count. Returns
// false when the fragment was dropped (no space, no record left, no start code, no open
// unit to continue); the drop has been logged as a line of `caller`. Copies the bytes,
// allocates nothing.
bool appendNalFragment(CmmbSharedBuffer* buffer, BufferWriteState& state, int session,
                       unsigned long tsBase, unsigned long tsRelative, const unsigned char* data,
                       unsigned short length, int pos, const char* caller);

// Appends one fragment to each of `count` targets in turn, as appendNalFragment does; a
// drop for one target ends the fragment for the targets after it too.
void appendNalFragmentToTargets(const FrameTarget* targets, int count, unsigned long tsBase,
                                unsigned long tsRelative, const unsigned char* data,
                                unsigned short length, int pos, const char* caller);

#endif  // TAVO_SHAREDBUFFER_NAL_INGESTION_H
