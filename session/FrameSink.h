// What the session manager hands to its owner at the end of each session's multiplex frame,
// while the session's shared buffer is still locked: the engine records the frame there.
#ifndef TAVO_SESSION_FRAME_SINK_H
#define TAVO_SESSION_FRAME_SINK_H

class FrameSink {
public:
    virtual ~FrameSink() = default;
    // Agent thread, inside the frame bracket, with the session's buffer lock held by the
    // engine. Must not wait for the play engine.
    virtual void onSessionFrameEnd(int session) = 0;
};

#endif  // TAVO_SESSION_FRAME_SINK_H
