// A minimal play-engine client for tests: binds its own socket path (or stays unbound),
// connects to the engine's command socket, receives 96-byte commands with their passed
// descriptors and sends 64-byte indications.
#ifndef TAVO_TESTS_PLAYENGINE_TEST_CLIENT_H
#define TAVO_TESTS_PLAYENGINE_TEST_CLIENT_H

#include <string>

#include "PlayEngineProtocol.h"

// One received command. Owns `fd` (-1 when none was passed).
struct ReceivedCommand {
    PlayEngineCommandMessage message;
    int bytes = 0;           // bytes received: 96 for a whole message, 0 at end of stream
    int fd = -1;             // passed descriptor, owned
    bool truncated = false;  // MSG_CTRUNC or MSG_TRUNC

    ReceivedCommand() = default;
    ReceivedCommand(ReceivedCommand&& other) noexcept;
    ReceivedCommand& operator=(ReceivedCommand&& other) noexcept;
    ~ReceivedCommand();
    ReceivedCommand(const ReceivedCommand&) = delete;
    ReceivedCommand& operator=(const ReceivedCommand&) = delete;

    std::string text() const;
    char session() const { return message.session; }
};

class PlayEngineTestClient {
public:
    // ownPath: the path the client binds before connecting; empty leaves it unbound.
    explicit PlayEngineTestClient(const std::string& ownPath);
    ~PlayEngineTestClient();
    PlayEngineTestClient(const PlayEngineTestClient&) = delete;
    PlayEngineTestClient& operator=(const PlayEngineTestClient&) = delete;

    // Connects to serverPath, retrying for a generous bound while the server comes up.
    bool connectTo(const std::string& serverPath);
    void disconnect();

    // Waits up to timeoutMs for the next command; bytes is 0 at end of stream and -1 on a
    // time-out or error.
    ReceivedCommand receive(int timeoutMs = 10000);
    // True when the engine closed the connection within timeoutMs (pending commands are
    // read and dropped).
    bool waitForClose(int timeoutMs = 10000);
    // Sends one indication whose first field is `code` (copied with its zero byte).
    bool sendIndication(const std::string& code);
    bool sendRaw(const void* data, size_t size);

    int fd() const { return mFd; }

private:
    std::string mOwnPath;
    int mFd;
};

#endif  // TAVO_TESTS_PLAYENGINE_TEST_CLIENT_H
