// One session's shared A/V buffer region: the memory file's descriptor, its mapping in this
// process and the two semaphores inside it.
//
// Ownership: the region owns its descriptor and its mapping; release() or the destructor
// unmaps and closes them. The play engine receives duplicates of the descriptor and maps the
// region itself, so the memory lives on for as long as any process maps it.
//
// A region the engine gives up while a departed reader may still use it is released with
// abandon(): its semaphores are left as they are, so that the reader keeps a consistent
// region of its own.
//
// Threads: a region is made and released by one thread at a time (the owning set serialises
// that); address() and fd() may be read while the region exists.
#ifndef TAVO_SHAREDBUFFER_SHARED_REGION_H
#define TAVO_SHAREDBUFFER_SHARED_REGION_H

#include <utility>

#include "CmmbSharedBuffer.h"
#include "UniqueHandle.h"

class Env;

class SharedRegion {
public:
    SharedRegion() = default;
    ~SharedRegion() { abandon(); }
    SharedRegion(SharedRegion&& other) noexcept { *this = std::move(other); }
    SharedRegion& operator=(SharedRegion&& other) noexcept;
    SharedRegion(const SharedRegion&) = delete;
    SharedRegion& operator=(const SharedRegion&) = delete;

    // Creates, maps and initialises the region of `session` (name "cmmb_shared_memory_<n>")
    // through `env`'s platform calls, logging each step as `caller`. 0 on success; -1 on any
    // failure, with nothing left behind. The region keeps no Env: nothing after its creation
    // goes through one.
    int create(int session, const char* caller, Env* env);
    // Destroys the semaphores, then unmaps and closes; logs as `caller` when given.
    void destroy(int session, const char* caller);
    // Unmaps and closes without touching the semaphores.
    void abandon();

    bool valid() const { return mMapping.valid(); }
    CmmbSharedBuffer* address() const {
        return static_cast<CmmbSharedBuffer*>(mMapping.get().address);
    }
    int fd() const { return mFd.get(); }

private:
    // Closes the descriptor, except one of value 0, which is left open.
    void closeDescriptor();

    UniqueFd mFd;
    UniqueMapping mMapping;
    bool mSemaphoresReady = false;
};

#endif  // TAVO_SHAREDBUFFER_SHARED_REGION_H
