// One session's shared A/V buffer mapped into the play engine: owns the descriptor the engine
// passed and the mapping of it.
#ifndef TAVO_TESTS_DATAPATH_SHARED_BUFFER_MAPPING_H
#define TAVO_TESTS_DATAPATH_SHARED_BUFFER_MAPPING_H

#include <string>

#include "CmmbSharedBuffer.h"
#include "UniqueFd.h"

class SharedBufferMapping {
public:
    SharedBufferMapping() = default;
    ~SharedBufferMapping();
    SharedBufferMapping(const SharedBufferMapping&) = delete;
    SharedBufferMapping& operator=(const SharedBufferMapping&) = delete;

    // Takes the descriptor and maps the whole region, readable and writable, shared. False
    // (with the reason in *error) when the region is too small or cannot be mapped.
    bool map(UniqueFd fd, std::string* error);
    CmmbSharedBuffer* buffer() const { return mBuffer; }

private:
    UniqueFd mFd;
    CmmbSharedBuffer* mBuffer = nullptr;
};

#endif  // TAVO_TESTS_DATAPATH_SHARED_BUFFER_MAPPING_H
