// The one sender and receiver of messages with passed descriptors on the play-engine socket,
// used by both ends: the engine's command socket server and the play-engine SDK (and the
// fuzzer's fake client). No engine state: plain functions over a connected stream socket.
//
// What arrives is hostile. Every descriptor a receive brings is owned by a UniqueFd as soon as
// it is read out of the control data; descriptors beyond the room the caller gave are closed
// at once, and when the control data was cut short (MSG_CTRUNC) every descriptor that did
// arrive is closed, because the message it belonged to is incomplete.
//
// Threads: no state of its own; one socket is used by one thread at a time, or under its
// owner's lock.
#ifndef TAVO_PLAYENGINE_PLAY_ENGINE_WIRE_H
#define TAVO_PLAYENGINE_PLAY_ENGINE_WIRE_H

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>

#include "UniqueHandle.h"

namespace PlayEngineWire {

// Most descriptors one message may carry.
const size_t kMaxDescriptors = 4;

// The descriptors that arrived with one message, owned here until taken.
class PassedDescriptors {
public:
    PassedDescriptors() = default;
    PassedDescriptors(const PassedDescriptors&) = delete;
    PassedDescriptors& operator=(const PassedDescriptors&) = delete;

    size_t count() const { return mCount; }
    // The descriptor at `index` (below count()), given up to the caller; the slot is empty after.
    UniqueFd take(size_t index);
    // Owns `fd`; closes it at once when there is no room left.
    void add(int fd);
    // Closes every descriptor still held.
    void clear();

private:
    UniqueFd mDescriptors[kMaxDescriptors];
    size_t mCount = 0;
};

// What one receive brought.
struct Receipt {
    ssize_t bytes = -1;             // recvmsg's result; -1 with `error` set
    int error = 0;                  // errno of a failed receive
    bool controlTruncated = false;  // the control data was cut: its descriptors are closed
};

// Receives at most `size` bytes into `data` with recvmsg(`flags` | MSG_CMSG_CLOEXEC),
// repeating after EINTR, offering control space for `room` descriptors (at most
// kMaxDescriptors). `passed` is emptied first and then holds every descriptor that came; more
// than `room` of them cut the control data, and then none is kept.
Receipt receive(int socket, void* data, size_t size, int flags, size_t room,
                PassedDescriptors* passed);

// Sends `pieces` with sendmsg(`flags`) and, when `count` > 0, `descriptors` (at most
// kMaxDescriptors) in one SCM_RIGHTS control message; repeats after EINTR. The result of
// sendmsg: the number of bytes sent, or -1 with errno set (EINVAL for too many descriptors).
ssize_t send(int socket, const iovec* pieces, size_t pieceCount, const int* descriptors,
             size_t count, int flags);

}  // namespace PlayEngineWire

#endif  // TAVO_PLAYENGINE_PLAY_ENGINE_WIRE_H
