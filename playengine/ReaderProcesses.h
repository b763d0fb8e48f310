// The processes that have received the shared-buffer descriptors and may therefore hold a
// buffer lock: every accepted play engine, including ones pushed out by a later client,
// which keep their mappings.
//
// When a play engine's connection ends, a buffer lock at 0 that no engine thread holds
// belongs to one of these processes. It may be taken back only once none of them lives any
// more: a client that merely disconnected, or a live reader that was pushed out, may still
// be inside its read. A process counts as gone when the system no longer knows its pid or
// shows it as a zombie. Command thread only; fixed capacity, no allocation.
#ifndef TAVO_PLAYENGINE_READER_PROCESSES_H
#define TAVO_PLAYENGINE_READER_PROCESSES_H

#include <sys/types.h>

class ReaderProcesses {
public:
    enum { CAPACITY = 32 };

    // Remembers a process that received the descriptors. When the table is full of live
    // processes the newcomer cannot be tracked, and from then on anyAlive() stays true: a
    // lock is never taken back from a reader that might live.
    void add(pid_t pid);
    // Forgets the processes that are gone; true when any process remains.
    bool anyAlive();

private:
    static bool alive(pid_t pid);

    pid_t mPids[CAPACITY] = {};
    int mCount = 0;
    bool mOverflowed = false;
};

#endif  // TAVO_PLAYENGINE_READER_PROCESSES_H
