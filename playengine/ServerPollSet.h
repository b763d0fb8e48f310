// The poll set of the command socket server: entry 0 is the listening socket, entry 1 the
// client or -1. One entry is polled without a client, two with one.
//
// Threads: the command thread alone.
#ifndef TAVO_PLAYENGINE_SERVER_POLL_SET_H
#define TAVO_PLAYENGINE_SERVER_POLL_SET_H

#include <poll.h>

class ServerPollSet {
public:
    ServerPollSet() : mEntries{}, mCount(1) {
        mEntries[0].fd = -1;
        mEntries[0].events = POLLRDNORM;
        mEntries[1].fd = -1;
        mEntries[1].events = POLLRDNORM;
    }

    void setListening(int fd) {
        mEntries[0].fd = fd;
        mEntries[0].revents = 0;
    }
    int listening() const { return mEntries[0].fd; }

    // Result of poll(): 0 on a time-out. Events of an earlier pass are forgotten first, so a
    // failed poll reports none.
    int wait(int timeoutMs) {
        mEntries[0].revents = 0;
        mEntries[1].revents = 0;
        return poll(mEntries, mCount, timeoutMs);
    }

    short listeningEvents() const { return mEntries[0].revents; }
    short clientEvents() const { return mCount > 1 ? mEntries[1].revents : 0; }
    int client() const { return mEntries[1].fd; }
    bool hasClient() const { return mEntries[1].fd != -1; }

    void setClient(int fd) {
        mEntries[1].fd = fd;
        mEntries[1].revents = 0;
        mCount = 2;
    }
    void clearClient() {
        mEntries[1].fd = -1;
        mEntries[1].revents = 0;
        mCount = 1;
    }

private:
    pollfd mEntries[2];
    nfds_t mCount;  // entries polled: 1 without a client, 2 with one
};

#endif  // TAVO_PLAYENGINE_SERVER_POLL_SET_H
