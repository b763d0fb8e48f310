#include "PlayEngineWire.h"

#include <errno.h>

#include <cstring>
#include <utility>

namespace PlayEngineWire {

namespace {

// Control buffer with room for kMaxDescriptors descriptors, aligned for cmsghdr.
struct ControlBuffer {
    alignas(cmsghdr) unsigned char bytes[CMSG_SPACE(kMaxDescriptors * sizeof(int))];
};

// Takes every SCM_RIGHTS descriptor out of the control data of `message` into `passed`. Each
// header's length is checked against the buffer the kernel filled before its data is read.
void takeDescriptors(msghdr& message, PassedDescriptors* passed) {
    const unsigned char* const controlEnd =
        static_cast<const unsigned char*>(message.msg_control) + message.msg_controllen;
    for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr;
         header = CMSG_NXTHDR(&message, header)) {
        const size_t length = header->cmsg_len;
        if (length < CMSG_LEN(0))
            break;
        const unsigned char* const data = CMSG_DATA(header);
        size_t bytes = length - CMSG_LEN(0);
        if (data + bytes > controlEnd)
            bytes = static_cast<size_t>(controlEnd - data);
        if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS)
            continue;
        for (size_t at = 0; at + sizeof(int) <= bytes; at += sizeof(int)) {
            int fd;
            memcpy(&fd, data + at, sizeof(fd));
            passed->add(fd);
        }
    }
}

}  // namespace

UniqueFd PassedDescriptors::take(size_t index) {
    if (index >= mCount)
        return UniqueFd();
    return std::move(mDescriptors[index]);
}

void PassedDescriptors::add(int fd) {
    UniqueFd owned(fd);  // owned before anything else can happen to it
    if (mCount < kMaxDescriptors)
        mDescriptors[mCount++] = std::move(owned);
}

void PassedDescriptors::clear() {
    for (size_t i = 0; i < mCount; ++i)
        mDescriptors[i].reset();
    mCount = 0;
}

Receipt receive(int socket, void* data, size_t size, int flags, size_t room,
                PassedDescriptors* passed) {
    passed->clear();
    if (room > kMaxDescriptors)
        room = kMaxDescriptors;
    ControlBuffer control;
    iovec piece = {data, size};
    msghdr message;
    memset(&message, 0, sizeof(message));
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = control.bytes;
    message.msg_controllen = room > 0 ? CMSG_SPACE(room * sizeof(int)) : 0;
    if (room == 0)
        message.msg_control = nullptr;
    const size_t offered = message.msg_controllen;

    Receipt receipt;
    do {
        receipt.bytes = recvmsg(socket, &message, flags | MSG_CMSG_CLOEXEC);
    } while (receipt.bytes < 0 && errno == EINTR);
    if (receipt.bytes < 0) {
        receipt.error = errno;
        return receipt;
    }
    if (message.msg_controllen > offered)
        message.msg_controllen = offered;
    if (message.msg_controllen > 0)
        takeDescriptors(message, passed);
    if ((message.msg_flags & MSG_CTRUNC) != 0) {
        passed->clear();
        receipt.controlTruncated = true;
    }
    return receipt;
}

ssize_t send(int socket, const iovec* pieces, size_t pieceCount, const int* descriptors,
             size_t count, int flags) {
    if (count > kMaxDescriptors) {
        errno = EINVAL;
        return -1;
    }
    ControlBuffer control;
    memset(&control, 0, sizeof(control));
    msghdr message;
    memset(&message, 0, sizeof(message));
    message.msg_iov = const_cast<iovec*>(pieces);
    message.msg_iovlen = pieceCount;
    if (count > 0) {
        message.msg_control = control.bytes;
        message.msg_controllen = CMSG_SPACE(count * sizeof(int));
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_len = CMSG_LEN(count * sizeof(int));
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        memcpy(CMSG_DATA(header), descriptors, count * sizeof(int));
    }
    ssize_t sent;
    do {
        sent = sendmsg(socket, &message, flags);
    } while (sent < 0 && errno == EINTR);
    return sent;
}

}  // namespace PlayEngineWire
