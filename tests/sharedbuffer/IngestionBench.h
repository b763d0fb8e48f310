// One session's private shared buffer and the engine's write state for it, prepared as a
// frame start leaves them, with the ingestion's two entry points at hand (logging as "test").
#ifndef TAVO_TESTS_SHAREDBUFFER_INGESTION_BENCH_H
#define TAVO_TESTS_SHAREDBUFFER_INGESTION_BENCH_H

#include <memory>

#include "AacIngestion.h"
#include "MBBMSAgent.h"
#include "NalIngestion.h"
#include "TestBytes.h"

class IngestionBench {
public:
    IngestionBench() : mRegion(new CmmbSharedBuffer()), b(mRegion.get()) { frameStart(); }

    // What the frame hand-off does to the buffer at each frame start.
    void frameStart() {
        state.clear();
        state.publishCounts(b);
        for (CmmbNalRecord& record : b->nal)
            record.pos = CMMB_NAL_POS_NONE_OPEN;
    }
    bool nal(const Bytes& data, int pos, unsigned long tsBase = 0, unsigned long tsRelative = 0) {
        return appendNalFragment(b, state, 0, tsBase, tsRelative, data.data(),
                                 static_cast<unsigned short>(data.size()), pos, "test");
    }
    bool aac(const Bytes& data, unsigned long tsBase = 0) {
        return appendAacFrame(b, state, 0, tsBase, 0, data.data(),
                              static_cast<unsigned short>(data.size()), "test");
    }
    // Fills the payload to `length` bytes with complete units.
    void fillPayload(uint32_t length) {
        while (state.dataLength < length) {
            const uint32_t missing = length - state.dataLength;
            nal(nalUnit(4, 0x65, (missing > 60000 ? 60000 : missing) + 4),
                MBBMSAgent::NAL_FRAGMENT_COMPLETE);
        }
    }

private:
    std::unique_ptr<CmmbSharedBuffer> mRegion;

public:
    CmmbSharedBuffer* const b;
    BufferWriteState state;
};

#endif  // TAVO_TESTS_SHAREDBUFFER_INGESTION_BENCH_H
