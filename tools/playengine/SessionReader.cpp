#include "SessionReader.h"

#include <cstring>

namespace {

const int kWaitSliceMs = 100;

}  // namespace

SessionReader::SessionReader(tavo_pe* connection, int session, FrameConsumer* consumer)
    : mConnection(connection),
      mSession(session),
      mConsumer(consumer),
      mFrame(new CmmbSharedBuffer()),
      mStop(false),
      mThread(&SessionReader::run, this) {}

SessionReader::~SessionReader() {
    mStop.store(true);
    mThread.join();
}

uint32_t SessionReader::copyFrame(const tavo_pe_frame& shared) {
    uint32_t bad = 0;
    uint32_t used = 0;
    uint32_t nals = 0;
    uint32_t aacs = 0;
    tavo_pe_item item;
    for (uint32_t i = 0; i < shared.nal_count; ++i) {
        // Overlapping records can add up to more than the payload: those are left out too.
        if (tavo_pe_frame_nal(&shared, i, &item) != TAVO_PE_OK ||
            item.length > CMMB_PAYLOAD_SIZE - used) {
            ++bad;
            continue;
        }
        memcpy(mFrame->data + used, item.bytes, item.length);
        mFrame->nal[nals++] = {item.ts_base, item.ts_relative, item.length, used, item.pos};
        used += item.length;
    }
    for (uint32_t i = 0; i < shared.aac_count; ++i) {
        if (tavo_pe_frame_aac(&shared, i, &item) != TAVO_PE_OK ||
            item.length > CMMB_PAYLOAD_SIZE - used) {
            ++bad;
            continue;
        }
        memcpy(mFrame->data + used, item.bytes, item.length);
        mFrame->aac[aacs++] = {item.ts_base, item.ts_relative, item.length, used};
        used += item.length;
    }
    mFrame->nalCount = nals;
    mFrame->aacCount = aacs;
    mFrame->dataLength = used;
    return bad;
}

void SessionReader::run() {
    while (!mStop.load()) {
        tavo_pe_frame frame;
        int status = tavo_pe_wait_frame(mConnection, mSession, kWaitSliceMs, &frame);
        if (status == TAVO_PE_TIMEOUT)
            continue;
        if (status != TAVO_PE_OK)
            break;
        uint32_t badRecords = copyFrame(frame);
        tavo_pe_release_frame(mConnection, &frame);
        mConsumer->consume(*mFrame, badRecords);
    }
}
