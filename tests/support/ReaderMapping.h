// A reader's own mapping of one session's shared region, made from its descriptor as a play
// engine makes it, and that reader's hold on the buffer lock. The mapping outlives a
// replacement of the region, as another process's would.
#ifndef TAVO_TESTS_SUPPORT_READER_MAPPING_H
#define TAVO_TESTS_SUPPORT_READER_MAPPING_H

#include <sys/mman.h>

#include "CmmbSharedBuffer.h"
#include "CmmbSharedSemaphore.h"
#include "UniqueHandle.h"

class ReaderMapping {
public:
    explicit ReaderMapping(int fd) {
        void* address =
            mmap(nullptr, CMMB_SHARED_BUFFER_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (address != MAP_FAILED) {
            mMapping.reset(Mapping{address, CMMB_SHARED_BUFFER_SIZE});
            mBuffer = static_cast<CmmbSharedBuffer*>(address);
        }
    }
    ReaderMapping(const ReaderMapping&) = delete;
    ReaderMapping& operator=(const ReaderMapping&) = delete;

    bool mapped() const { return mBuffer != nullptr; }
    CmmbSharedBuffer* get() const { return mBuffer; }
    // Takes the buffer lock the way a reader does, without waiting; whether it got it.
    bool take() { return cmmb_sem_trywait(&mBuffer->mutexDataAccessable) == 0; }
    void giveBack() { cmmb_sem_post(&mBuffer->mutexDataAccessable); }
    int lockValue() {
        int value = -1;
        cmmb_sem_getvalue(&mBuffer->mutexDataAccessable, &value);
        return value;
    }

private:
    UniqueMapping mMapping;
    CmmbSharedBuffer* mBuffer = nullptr;  // where mMapping starts; null when the mapping failed
};

#endif  // TAVO_TESTS_SUPPORT_READER_MAPPING_H
