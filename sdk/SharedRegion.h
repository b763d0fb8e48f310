// One session's shared A/V buffer mapped into the play engine: owns the passed descriptor
// and the mapping of it.
//
// Threads: mapped and reset by the connection's owner while no frame of the session is
// being read.
#ifndef TAVO_SDK_SHARED_REGION_H
#define TAVO_SDK_SHARED_REGION_H

#include "CmmbSharedBuffer.h"
#include "UniqueHandle.h"

class SharedRegion {
public:
    // Takes the descriptor and maps exactly one region, readable and writable, shared.
    // False when the descriptor's size is not the region's or it cannot be mapped.
    bool map(UniqueFd fd);
    void reset();
    CmmbSharedBuffer* buffer() const {
        return static_cast<CmmbSharedBuffer*>(mMapping.get().address);
    }

private:
    UniqueMapping mMapping;  // unmapped before the descriptor is closed
    UniqueFd mFd;
};

#endif  // TAVO_SDK_SHARED_REGION_H
