// The play engine's end of the engine's command socket: binds its own path (the engine
// accepts only clients bound to an existing path), connects, receives 96-byte commands with
// their passed descriptors and sends 64-byte indications.
//
// Threads: one thread at a time (the connection's owner).
#ifndef TAVO_SDK_PLAY_ENGINE_SOCKET_H
#define TAVO_SDK_PLAY_ENGINE_SOCKET_H

#include <string>

#include "PlayEngineProtocol.h"
#include "UniqueHandle.h"

class PlayEngineSocket {
public:
    enum Result { RECEIVED, NOTHING_YET, CLOSED, CUT_SHORT, FAILED };

    PlayEngineSocket(const std::string& enginePath, const std::string& ownPath);
    ~PlayEngineSocket();
    PlayEngineSocket(const PlayEngineSocket&) = delete;
    PlayEngineSocket& operator=(const PlayEngineSocket&) = delete;

    // Binds the own path (a left-over file there is replaced) and connects. errno tells why
    // when it returns false.
    bool connect();
    bool isConnected() const { return mSocket.valid(); }
    void close();

    // Waits up to timeoutMs for one command; *fd receives its passed descriptor, if any.
    // Anything but RECEIVED and NOTHING_YET closes the connection.
    Result receive(PlayEngineCommandMessage* message, UniqueFd* fd, int timeoutMs);
    bool sendIndication(int code);

private:
    std::string mEnginePath;
    std::string mOwnPath;
    UniqueFd mSocket;
};

#endif  // TAVO_SDK_PLAY_ENGINE_SOCKET_H
