// The play-engine SDK against a scripted engine end: what it does with wrong-sized regions,
// cut-short messages, surplus descriptors and the commands it passes on.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "PlayEngineWire.h"
#include "TavoPlayEngine.h"
#include "TestRoot.h"
#include "UniqueHandle.h"

namespace {

// The engine's listening end in a temporary directory, one client at a time.
class ScriptedEngine {
public:
    ScriptedEngine() {
        mListener.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, path().c_str(), sizeof(address.sun_path) - 1);
        EXPECT_EQ(0, bind(mListener.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)));
        EXPECT_EQ(0, listen(mListener.get(), 2));
    }
    std::string path() const { return mDir.resolve("/data/app/cmmb.socket"); }
    std::string ownPath() const { return mDir.path() + "/pe.socket"; }

    // Accepts and checks that the client is bound to an existing path.
    bool accept() {
        sockaddr_un peer = {};
        socklen_t length = sizeof(peer);
        mClient.reset(
            ::accept4(mListener.get(), reinterpret_cast<sockaddr*>(&peer), &length, SOCK_CLOEXEC));
        struct stat status;
        return mClient.valid() && length > sizeof(sa_family_t) &&
               stat(peer.sun_path, &status) == 0 && S_ISSOCK(status.st_mode);
    }

    // Sends `size` bytes of a command message with `fds` attached.
    void send(const char* text, char session, const std::vector<int>& fds,
              size_t size = sizeof(PlayEngineCommandMessage)) {
        PlayEngineCommandMessage message = {};
        // Zero padded; a text of 32 characters or more fills the field without a terminator.
        memcpy(message.command, text, std::min(strlen(text), sizeof(message.command)));
        message.fdStatus = fds.empty() ? 1 : 0;
        message.session = session;
        const iovec piece = {&message, size};
        EXPECT_EQ(
            static_cast<ssize_t>(size),
            PlayEngineWire::send(mClient.get(), &piece, 1, fds.data(), fds.size(), MSG_NOSIGNAL));
    }

    // The next indication's code text, or "" when none came within 5 s.
    std::string indication() {
        PlayEngineIndicationMessage message;
        timeval bound = {5, 0};
        setsockopt(mClient.get(), SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof(bound));
        if (recv(mClient.get(), &message, sizeof(message), MSG_WAITALL) !=
            static_cast<ssize_t>(sizeof(message)))
            return "";
        return std::string(message.code, strnlen(message.code, sizeof(message.code)));
    }
    void hangUp() { mClient.reset(); }
    // True when the client's end is closed (end of stream) within `ms`.
    bool seesEndWithin(int ms) {
        pollfd entry = {mClient.get(), POLLIN, 0};
        char byte;
        return poll(&entry, 1, ms) == 1 && recv(mClient.get(), &byte, 1, MSG_DONTWAIT) == 0;
    }

private:
    const TestRoot mDir{""};
    UniqueFd mListener, mClient;
};

UniqueFd regionOfSize(off_t size) {
    UniqueFd fd(memfd_create("cmmb_shared_memory_test", MFD_CLOEXEC));
    EXPECT_EQ(0, ftruncate(fd.get(), size));
    return fd;
}

// The SDK connecting on a thread of its own to a scripted engine end that has accepted it.
struct Connecting {
    Connecting() { EXPECT_TRUE(engine.accept()); }
    ~Connecting() {
        if (result.valid())
            result.wait();
        tavo_pe_destroy(pe);
    }
    // Serves both regions of the right size, sees each acknowledged with code 2 and the
    // connection made.
    void serveRegions() {
        UniqueFd first = regionOfSize(CMMB_SHARED_BUFFER_SIZE);
        UniqueFd second = regionOfSize(CMMB_SHARED_BUFFER_SIZE);
        engine.send("sharebuffer", '0', {first.get()});
        engine.send("sharebuffer", '1', {second.get()});
        EXPECT_EQ("2", engine.indication());
        EXPECT_EQ("2", engine.indication());
        ASSERT_EQ(TAVO_PE_OK, result.get());
    }

    ScriptedEngine engine;
    tavo_pe* const pe = tavo_pe_create(engine.path().c_str(), engine.ownPath().c_str());
    std::future<int> result =
        std::async(std::launch::async, [pe = pe] { return tavo_pe_connect(pe, 5000); });
};

// A "sharebuffer" without a descriptor, for a non-session or with a region of the wrong size.
TEST(SdkWire, ARegionThatCannotBeMappedIsRefusedAndAskedForAgain) {
    const struct {
        char session;
        off_t size;  // of the region passed; -1: none passed
    } cases[] = {{'0', 0},
                 {'0', 100},
                 {'0', CMMB_SHARED_BUFFER_SIZE + 4096},
                 {'0', -1},
                 {'7', CMMB_SHARED_BUFFER_SIZE},
                 {'x', CMMB_SHARED_BUFFER_SIZE}};
    for (const auto& sharebuffer : cases) {
        SCOPED_TRACE(std::string("session ") + sharebuffer.session + ", size " +
                     std::to_string(sharebuffer.size));
        Connecting sdk;
        UniqueFd region = regionOfSize(std::max<off_t>(sharebuffer.size, 0));
        if (sharebuffer.size < 0)
            sdk.engine.send("sharebuffer", sharebuffer.session, {});
        else
            sdk.engine.send("sharebuffer", sharebuffer.session, {region.get()});
        EXPECT_EQ("1", sdk.engine.indication());
        EXPECT_EQ(TAVO_PE_BAD_REGION, sdk.result.get());
        EXPECT_FALSE(tavo_pe_is_connected(sdk.pe));
        EXPECT_EQ(nullptr, tavo_pe_region(sdk.pe, 0));
    }
}

TEST(SdkWire, CutShortMessagesAndSurplusDescriptorsEndTheConnection) {
    {
        Connecting sdk;
        sdk.engine.send("sharebuffer", '0', {}, 50);
        sdk.engine.hangUp();
        EXPECT_EQ(TAVO_PE_PROTOCOL, sdk.result.get());
    }
#if !TAVO_EMULATED  // qemu-user does not report control data it had to cut (MSG_CTRUNC)
    {
        // Two descriptors where the control space holds one: truncated control data.
        Connecting sdk;
        UniqueFd first = regionOfSize(CMMB_SHARED_BUFFER_SIZE);
        UniqueFd second = regionOfSize(CMMB_SHARED_BUFFER_SIZE);
        sdk.engine.send("sharebuffer", '0', {first.get(), second.get(), first.get(), second.get()});
        EXPECT_EQ(TAVO_PE_PROTOCOL, sdk.result.get());
    }
#endif
    Connecting sdk;
    sdk.engine.hangUp();
    EXPECT_EQ(TAVO_PE_CLOSED, sdk.result.get());
}

// Signals that land in the SDK's wait for a command (handled, without SA_RESTART, as timers of
// applications and fuzzers often are) do not end the wait: the command that comes later, within
// the time-out, is still passed on. The end of the connection is reported after it.
TEST(SdkWire, SignalsDoNotCutAWaitForACommandShort) {
    struct sigaction handler = {}, previous = {};
    handler.sa_handler = [](int) {};
    ASSERT_EQ(0, sigaction(SIGUSR1, &handler, &previous));
    Connecting sdk;
    ASSERT_NO_FATAL_FAILURE(sdk.serveRegions());
    tavo_pe_command command;
    int status = -1;
    std::thread waiter([&] { status = tavo_pe_next_command(sdk.pe, &command, 20000); });
    // Several signals some time apart, so that some find the waiter inside its wait.
    for (int i = 0; i < 5; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(40));
        pthread_kill(waiter.native_handle(), SIGUSR1);
    }
    sdk.engine.send("flush", '0', {});
    waiter.join();
    sigaction(SIGUSR1, &previous, nullptr);
    ASSERT_EQ(TAVO_PE_OK, status);
    EXPECT_EQ(TAVO_PE_CMD_FLUSH, command.kind);

    // The engine's end of the connection ends: reported, and the regions stay mapped until the
    // caller connects again.
    sdk.engine.hangUp();
    EXPECT_EQ(TAVO_PE_CLOSED, tavo_pe_next_command(sdk.pe, &command, 5000));
    EXPECT_FALSE(tavo_pe_is_connected(sdk.pe));
    EXPECT_NE(nullptr, tavo_pe_region(sdk.pe, 0)) << "unmapped under the readers' feet";
    EXPECT_EQ(TAVO_PE_CLOSED, tavo_pe_send_indication(sdk.pe, GOT_SHAREDBUFFER_FD));
    tavo_pe_disconnect(sdk.pe);
    EXPECT_EQ(nullptr, tavo_pe_region(sdk.pe, 0));
}

// After both regions are mapped, commands are passed on with their descriptors (close-on-
// exec) and a repeated "sharebuffer" is dropped. Hanging up ends the connection for the engine,
// keeps the regions readable, and closes only this process's descriptor: a forked child that
// hangs up leaves its parent connected, and the parent's hang-up is seen while the child still
// lives.
TEST(SdkWire, CommandsArePassedOnAndHangingUpClosesOnlyThisCopyOfTheConnection) {
    Connecting sdk;
    ASSERT_NO_FATAL_FAILURE(sdk.serveRegions());
    CmmbSharedBuffer* region = tavo_pe_region(sdk.pe, 0);
    ASSERT_NE(nullptr, region);
    ASSERT_NE(nullptr, tavo_pe_region(sdk.pe, 1));

    UniqueFd target(open("/dev/null", O_WRONLY));
    UniqueFd extra = regionOfSize(CMMB_SHARED_BUFFER_SIZE);
    sdk.engine.send("sharebuffer", '0', {extra.get()});
    sdk.engine.send("capture", '1', {target.get()});
    sdk.engine.send("flush", '0', {});
    sdk.engine.send("startrecord", '0', {});
    sdk.engine.send("stoprecord", '0', {});
    sdk.engine.send("rewind", '0', {});
    const tavo_pe_command_kind expected[] = {TAVO_PE_CMD_CAPTURE, TAVO_PE_CMD_FLUSH,
                                             TAVO_PE_CMD_START_RECORD, TAVO_PE_CMD_STOP_RECORD,
                                             TAVO_PE_CMD_UNKNOWN};
    for (tavo_pe_command_kind kind : expected) {
        tavo_pe_command command;
        ASSERT_EQ(TAVO_PE_OK, tavo_pe_next_command(sdk.pe, &command, 5000));
        EXPECT_EQ(kind, command.kind) << command.text;
        if (kind == TAVO_PE_CMD_CAPTURE) {
            EXPECT_EQ(1, command.session);
            ASSERT_GE(command.fd, 0);
            UniqueFd passed(command.fd);
            EXPECT_EQ(FD_CLOEXEC, fcntl(passed.get(), F_GETFD) & FD_CLOEXEC);
            passed.reset();
            EXPECT_EQ(TAVO_PE_OK, tavo_pe_send_indication(sdk.pe, IMAGE_CAPTURE_FAIL));
            EXPECT_EQ("4", sdk.engine.indication());
        } else {
            EXPECT_EQ(-1, command.fd);
        }
    }
    tavo_pe_command command;
    EXPECT_EQ(TAVO_PE_TIMEOUT, tavo_pe_next_command(sdk.pe, &command, 20));

    int link[2];  // [0] the parent's end, [1] the child's
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, link));
    UniqueFd parentEnd(link[0]), childEnd(link[1]);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        tavo_pe_hang_up(sdk.pe);
        region->dataLength = 1234;  // still mapped, and shared with the parent
        char note = tavo_pe_is_connected(sdk.pe) ? 'c' : 'h';
        if (write(link[1], &note, 1) != 1 || read(link[1], &note, 1) != 1)
            _exit(1);
        _exit(0);
    }
    char note = 0;
    ASSERT_EQ(1, read(link[0], &note, 1));
    EXPECT_EQ('h', note);
    EXPECT_EQ(1234u, region->dataLength);
    EXPECT_FALSE(sdk.engine.seesEndWithin(100))
        << "the child's hang-up ended the parent's connection";
    EXPECT_EQ(TAVO_PE_OK, tavo_pe_send_indication(sdk.pe, GOT_SHAREDBUFFER_FD));
    EXPECT_EQ("2", sdk.engine.indication());

    tavo_pe_hang_up(sdk.pe);
    EXPECT_TRUE(sdk.engine.seesEndWithin(5000)) << "a copy of the connection stayed open";
    EXPECT_FALSE(tavo_pe_is_connected(sdk.pe));
    EXPECT_EQ(TAVO_PE_CLOSED, tavo_pe_send_indication(sdk.pe, GOT_SHAREDBUFFER_FD));
    EXPECT_EQ(region, tavo_pe_region(sdk.pe, 0)) << "unmapped under the readers' feet";
    EXPECT_EQ(1234u, region->dataLength);
    tavo_pe_hang_up(nullptr);

    EXPECT_EQ(1, write(link[0], &note, 1));
    int status = -1;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    parentEnd.reset();
    childEnd.reset();
    tavo_pe_disconnect(sdk.pe);
    EXPECT_EQ(nullptr, tavo_pe_region(sdk.pe, 0));
}

TEST(SdkWire, PathsThatDoNotFitAreRefusedAndTheDefaultFollowsTheAndroidRoot) {
    const std::string longPath(200, 'a');
    EXPECT_EQ(nullptr, tavo_pe_create(longPath.c_str(), nullptr));
    EXPECT_EQ(nullptr, tavo_pe_create("/tmp/x.socket", longPath.c_str()));
    EXPECT_EQ(nullptr, tavo_pe_create("", nullptr));
    tavo_pe_command command;
    tavo_pe_frame frame;
    EXPECT_EQ(TAVO_PE_INVALID, tavo_pe_connect(nullptr, 0));
    EXPECT_EQ(TAVO_PE_INVALID, tavo_pe_next_command(nullptr, &command, 0));
    EXPECT_EQ(TAVO_PE_INVALID, tavo_pe_wait_frame(nullptr, 0, 0, &frame));
    EXPECT_EQ(TAVO_PE_INVALID, tavo_pe_release_frame(nullptr, &frame));
    EXPECT_EQ(0, tavo_pe_is_connected(nullptr));

    setenv("TAVO_ANDROID_ROOT", "/tmp/root", 1);
    char path[64];
    ASSERT_EQ(TAVO_PE_OK, tavo_pe_default_engine_path(path, sizeof(path)));
    EXPECT_STREQ("/tmp/root/data/app/cmmb.socket", path);
    EXPECT_EQ(TAVO_PE_INVALID, tavo_pe_default_engine_path(path, 10));
    unsetenv("TAVO_ANDROID_ROOT");
    ASSERT_EQ(TAVO_PE_OK, tavo_pe_default_engine_path(path, sizeof(path)));
    EXPECT_STREQ("/data/app/cmmb.socket", path);

    // Nobody listens: refused, and the own path is not left behind.
    const TestRoot nobody("");
    const std::string own = nobody.path() + "/pe.socket";
    tavo_pe* pe = tavo_pe_create(nobody.resolve("/data/app/cmmb.socket").c_str(), own.c_str());
    ASSERT_NE(nullptr, pe);
    EXPECT_EQ(TAVO_PE_REFUSED, tavo_pe_connect(pe, 100));
    EXPECT_NE(0, access(own.c_str(), F_OK));
    tavo_pe_destroy(pe);
}

}  // namespace
