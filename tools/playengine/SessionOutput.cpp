#include "SessionOutput.h"

SessionOutput::SessionOutput(const std::string& videoPath, const std::string& audioPath,
                             FrameBudget* budget)
    : mVideoOutput(videoPath),
      mAudioOutput(audioPath),
      mVideo(&mVideoOutput),
      mAudio(&mAudioOutput),
      mBudget(budget) {}

void SessionOutput::consume(const CmmbSharedBuffer& frame, uint32_t badRecords) {
    for (uint32_t i = 0; i < frame.nalCount; ++i) {
        const CmmbNalRecord& record = frame.nal[i];
        const unsigned char* nal = payloadItem(frame, record.offset, record.length);
        if (nal != nullptr)
            mPicture.add(nal, record.length);
    }
    int nalUnits = mVideo.writeFrame(frame);
    int aacFrames = mAudio.writeFrame(frame);

    mCounters.nalUnits.fetch_add(nalUnits);
    mCounters.aacFrames.fetch_add(aacFrames);
    mCounters.badRecords.fetch_add(static_cast<long>(badRecords + frame.nalCount + frame.aacCount) -
                                   nalUnits - aacFrames);
    if (frame.nalCount == 0 && frame.aacCount == 0 && badRecords == 0)
        mCounters.emptyFrames.fetch_add(1);
    mCounters.frames.fetch_add(1);
    mBudget->spend();
}
