#include "SessionReader.h"

#include <errno.h>

#include <algorithm>
#include <cstring>

namespace {

const int kWaitSliceMs = 100;

}  // namespace

SessionReader::SessionReader(std::unique_ptr<SharedBufferMapping> mapping, FrameConsumer* consumer)
    : mMapping(std::move(mapping)),
      mConsumer(consumer),
      mFrame(new CmmbSharedBuffer()),
      mStop(false),
      mThread(&SessionReader::run, this) {}

SessionReader::~SessionReader() {
    mStop.store(true);
    mThread.join();
}

bool SessionReader::waitUnlessStopped(CmmbSharedSemaphore* semaphore) {
    while (!mStop.load()) {
        if (cmmb_sem_timedwait(semaphore, kWaitSliceMs) == 0)
            return true;
        if (errno != ETIMEDOUT && errno != EINTR)
            return false;
    }
    return false;
}

void SessionReader::copyFrame(const CmmbSharedBuffer& shared) {
    // The counts come from another process: never trust them beyond the tables' bounds.
    uint32_t nalCount = std::min<uint32_t>(shared.nalCount, CMMB_NAL_RECORD_SLOTS);
    uint32_t aacCount = std::min<uint32_t>(shared.aacCount, CMMB_AAC_RECORD_SLOTS);
    uint32_t dataLength = std::min<uint32_t>(shared.dataLength, CMMB_PAYLOAD_SIZE);
    mFrame->nalCount = nalCount;
    mFrame->aacCount = aacCount;
    mFrame->dataLength = dataLength;
    memcpy(mFrame->nal, shared.nal, nalCount * sizeof(CmmbNalRecord));
    memcpy(mFrame->aac, shared.aac, aacCount * sizeof(CmmbAacRecord));
    memcpy(mFrame->data, shared.data, dataLength);
}

void SessionReader::run() {
    CmmbSharedBuffer* shared = mMapping->buffer();
    while (!mStop.load()) {
        if (!waitUnlessStopped(&shared->mutexDataAvailable))
            break;
        if (!waitUnlessStopped(&shared->mutexDataAccessable))
            break;
        copyFrame(*shared);
        shared->nalCount = 0;
        shared->aacCount = 0;
        cmmb_sem_post(&shared->mutexDataAccessable);
        mConsumer->consume(*mFrame);
    }
}
