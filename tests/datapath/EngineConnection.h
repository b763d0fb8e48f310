// The play engine's end of the engine's command socket: binds its own path (the engine
// accepts only clients bound to an existing path), connects, receives 96-byte commands with
// their passed descriptors and sends 64-byte indications.
//
// Threads: used by the play engine's main thread only.
#ifndef TAVO_TESTS_DATAPATH_ENGINE_CONNECTION_H
#define TAVO_TESTS_DATAPATH_ENGINE_CONNECTION_H

#include <string>

#include "PlayEngineProtocol.h"
#include "UniqueFd.h"

// One command as received. `fd` owns the passed descriptor, if any.
struct EngineCommand {
    PlayEngineCommandMessage message;
    UniqueFd fd;

    // The command text (bytes 0-31, up to the first zero byte).
    std::string text() const;
    // The session number from byte 64, or -1 when it is not a digit.
    int session() const;
};

class EngineConnection {
public:
    enum ReceiveResult { RECEIVED, NOTHING_YET, CLOSED };

    EngineConnection(const std::string& enginePath, const std::string& ownPath);
    ~EngineConnection();
    EngineConnection(const EngineConnection&) = delete;
    EngineConnection& operator=(const EngineConnection&) = delete;

    // One connection attempt; false (with the reason in *error) when the engine is not there.
    bool connect(std::string* error);
    bool isConnected() const { return mSocket.valid(); }
    void close();

    // Waits up to timeoutMs for a command. CLOSED when the engine ended the connection (the
    // connection is then closed here too).
    ReceiveResult receive(EngineCommand* command, int timeoutMs);
    // Sends one indication with `code` as its decimal text. False when the send failed.
    bool sendIndication(int code);

private:
    std::string mEnginePath;
    std::string mOwnPath;
    UniqueFd mSocket;
};

#endif  // TAVO_TESTS_DATAPATH_ENGINE_CONNECTION_H
