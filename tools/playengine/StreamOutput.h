// Where one elementary stream goes: a file, a FIFO (e.g. one ffplay reads) or standard
// output ("-"). The path is opened on the first write, so that a FIFO without a reader yet
// does not hold up the play engine's start. A write error (a reader that went away) stops
// the stream for good with one message; the play engine goes on.
//
// Threads: written by one session reader's thread at a time.
#ifndef TAVO_TOOLS_PLAYENGINE_STREAM_OUTPUT_H
#define TAVO_TOOLS_PLAYENGINE_STREAM_OUTPUT_H

#include <cstddef>
#include <string>

#include "UniqueHandle.h"

class StreamOutput {
public:
    // An empty path discards everything.
    explicit StreamOutput(const std::string& path);
    StreamOutput(const StreamOutput&) = delete;
    StreamOutput& operator=(const StreamOutput&) = delete;

    void write(const unsigned char* bytes, size_t size);
    bool enabled() const { return !mPath.empty() && !mBroken; }

private:
    bool open();

    std::string mPath;
    UniqueFd mFd;  // the opened file; not owned when it is standard output
    bool mIsStdout;
    bool mBroken;
};

#endif  // TAVO_TOOLS_PLAYENGINE_STREAM_OUTPUT_H
