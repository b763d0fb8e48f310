// Everything the play engine does with one session's frames: writes the video as Annex B
// H.264 and the audio as ADTS, keeps the latest picture for snapshots and counts what passed.
// Lives for the whole run, across reconnections to the engine.
//
// Threads: consume() on the session's reader thread (one at a time); latestPicture() and
// counters() from the main thread (the counters are atomic).
#ifndef TAVO_TOOLS_PLAYENGINE_SESSION_OUTPUT_H
#define TAVO_TOOLS_PLAYENGINE_SESSION_OUTPUT_H

#include <atomic>
#include <string>

#include "ElementaryStreamWriters.h"
#include "FrameBudget.h"
#include "FrameConsumer.h"
#include "LatestPicture.h"
#include "StreamOutput.h"

struct SessionCounters {
    std::atomic<long> frames{0};       // multiplex frames read
    std::atomic<long> emptyFrames{0};  // of which held neither video nor audio
    std::atomic<long> nalUnits{0};
    std::atomic<long> aacFrames{0};
    std::atomic<long> badRecords{0};  // records that pointed outside the payload
};

class SessionOutput : public FrameConsumer {
public:
    // videoPath/audioPath: see StreamOutput ("" discards). budget: shared by all sessions.
    SessionOutput(const std::string& videoPath, const std::string& audioPath, FrameBudget* budget);

    void consume(const CmmbSharedBuffer& frame, uint32_t badRecords) override;

    const LatestPicture& latestPicture() const { return mPicture; }
    const SessionCounters& counters() const { return mCounters; }

private:
    StreamOutput mVideoOutput;
    StreamOutput mAudioOutput;
    AnnexBWriter mVideo;
    AdtsWriter mAudio;
    LatestPicture mPicture;
    SessionCounters mCounters;
    FrameBudget* mBudget;
};

#endif  // TAVO_TOOLS_PLAYENGINE_SESSION_OUTPUT_H
