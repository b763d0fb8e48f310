// The exported play-engine status (TavoMBBMSEngineStatus.h), through the public library,
// with the play engine as a real process of its own that connects to the engine's socket,
// maps the buffers it is sent and takes and gives their locks on request.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <sstream>
#include <string>
#include <thread>

#include "ChildProcess.h"
#include "EngineDataPath.h"
#include "TavoMBBMSEngineStatus.h"
#include "UniqueHandle.h"

namespace {

using std::chrono::milliseconds;

const int kChannel = 31;
const milliseconds kAnswerBound(10000);

// A play engine in a process of its own, driven one line at a time through a pipe:
//   "connect <server path> <own path>"  connects and maps both buffers it is sent
//   "lock <session>" / "release <session>"  takes (waiting at most 5 s) or gives the lock
//   "leave"  ends the connection, keeping the mappings and any lock it holds
// It answers every line with one line, "ok" or what went wrong. Made before the engine
// starts any thread, so the fork copies a single-threaded process.
class ScriptedPlayEngine {
public:
    ScriptedPlayEngine() {
        int commands[2], answers[2];
        if (pipe(commands) != 0 || pipe(answers) != 0)
            return;
        mPid = fork();
        if (mPid == 0) {
            close(commands[1]);
            close(answers[0]);
            serve(commands[0], answers[1]);
            _exit(0);
        }
        close(commands[0]);
        close(answers[1]);
        mCommands = UniqueFd(commands[1]);
        mAnswers = UniqueFd(answers[0]);
    }

    ~ScriptedPlayEngine() {
        mCommands.reset();  // the process ends at the end of its input
        int status = 0;
        if (mPid > 0)
            waitpid(mPid, &status, 0);
    }

    ScriptedPlayEngine(const ScriptedPlayEngine&) = delete;
    ScriptedPlayEngine& operator=(const ScriptedPlayEngine&) = delete;

    // Sends one line and returns the answer, or why there was none.
    std::string ask(const std::string& line) {
        if (mPid <= 0)
            return "no play-engine process";
        const std::string text = line + "\n";
        if (write(mCommands.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()))
            return "cannot write to the play-engine process";
        std::string answer;
        const auto deadline = std::chrono::steady_clock::now() + kAnswerBound;
        for (char c = 0; c != '\n';) {
            pollfd readable = {mAnswers.get(), POLLIN, 0};
            const auto left = std::chrono::duration_cast<milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0 || poll(&readable, 1, static_cast<int>(left.count())) != 1)
                return "no answer to \"" + line + "\"";
            if (read(mAnswers.get(), &c, 1) != 1)
                return "the play-engine process ended";
            if (c != '\n')
                answer += c;
        }
        return answer;
    }

private:
    static void serve(int commands, int answers) {
        FILE* in = fdopen(commands, "r");
        PlayEngineReader reader;
        char line[1024];
        while (in != nullptr && fgets(line, sizeof(line), in) != nullptr) {
            std::istringstream words(line);
            std::string verb, first, second;
            words >> verb >> first >> second;
            std::string answer = "unknown command";
            if (verb == "connect") {
                answer = reader.connect(first, second);
            } else if (verb == "lock" || verb == "release") {
                const int session = first == "1" ? 1 : 0;
                CmmbSharedSemaphore* lock =
                    reader.buffer(session) ? &reader.buffer(session)->mutexDataAccessable : nullptr;
                if (lock == nullptr)
                    answer = "no buffer mapped";
                else if (verb == "lock")
                    answer = cmmb_sem_timedwait(lock, 5000) == 0 ? "" : "lock not taken";
                else
                    answer = cmmb_sem_post(lock) == 0 ? "" : "lock not given";
            } else if (verb == "leave") {
                reader.hangUp();
                answer = "";
            }
            answer = (answer.empty() ? "ok" : answer) + "\n";
            if (write(answers, answer.data(), answer.size()) < 0)
                break;
        }
        if (in != nullptr)
            fclose(in);
    }

    pid_t mPid = -1;
    UniqueFd mCommands, mAnswers;
};

bool becomesTrueWithin(const std::function<bool()>& condition, milliseconds bound) {
    const auto deadline = std::chrono::steady_clock::now() + bound;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(milliseconds(5));
    }
    return true;
}

std::string connectLine(const EngineDataPath& bench) {
    return "connect " + bench.serverPath() + " " + bench.root().path() + "/playengine.socket";
}

}  // namespace

// Connected only from the accept to the client's departure; holding a buffer exactly while
// the client keeps its lock, per session; -1 without an engine, without buffers and for a
// session other than 0 or 1.
TEST(PlayEngineStatus, FollowsAPlayEngineProcessFromConnectionToDeparture) {
    EXPECT_IN_CHILD({
        ScriptedPlayEngine playEngine;
        EXPECT_EQ(0, tavo_mbbms_playengine_connected());
        EXPECT_EQ(-1, tavo_mbbms_playengine_holds_buffer(0)) << "no engine yet";

        EngineDataPath bench("ERROR,WARNING", false);
        ASSERT_EQ("", bench.setUpError());
        EXPECT_EQ(0, tavo_mbbms_playengine_connected());
        EXPECT_EQ(0, tavo_mbbms_playengine_holds_buffer(0));
        EXPECT_EQ(0, tavo_mbbms_playengine_holds_buffer(1));
        for (int bad : {-1, 2, 1 << 30})
            EXPECT_EQ(-1, tavo_mbbms_playengine_holds_buffer(bad)) << bad;

        ASSERT_EQ("ok", playEngine.ask(connectLine(bench)));
        EXPECT_EQ(1, tavo_mbbms_playengine_connected());
        EXPECT_EQ(0, tavo_mbbms_playengine_holds_buffer(0));

        ASSERT_EQ("ok", playEngine.ask("lock 0"));
        EXPECT_EQ(1, tavo_mbbms_playengine_holds_buffer(0));
        EXPECT_EQ(0, tavo_mbbms_playengine_holds_buffer(1));
        ASSERT_EQ("ok", playEngine.ask("lock 1"));
        EXPECT_EQ(1, tavo_mbbms_playengine_holds_buffer(1));
        ASSERT_EQ("ok", playEngine.ask("release 0"));
        EXPECT_EQ(0, tavo_mbbms_playengine_holds_buffer(0));
        EXPECT_EQ(1, tavo_mbbms_playengine_holds_buffer(1));
        ASSERT_EQ("ok", playEngine.ask("release 1"));
        EXPECT_EQ(0, tavo_mbbms_playengine_holds_buffer(1));

        ASSERT_EQ("ok", playEngine.ask("leave"));
        EXPECT_TRUE(becomesTrueWithin([] { return tavo_mbbms_playengine_connected() == 0; },
                                      milliseconds(2000)));
        EXPECT_EQ(0, tavo_mbbms_playengine_holds_buffer(0));

        // A second play engine is connected again; deinit ends the connection and the buffers.
        ASSERT_EQ("ok", playEngine.ask(connectLine(bench)));
        EXPECT_EQ(1, tavo_mbbms_playengine_connected());
        ASSERT_EQ(0, bench.engine().deinit());
        EXPECT_EQ(0, tavo_mbbms_playengine_connected());
        EXPECT_EQ(-1, tavo_mbbms_playengine_holds_buffer(0));
        EXPECT_EQ(-1, tavo_mbbms_playengine_holds_buffer(1));
    });
}

// The status reads the buffer set's holds (its own tests tell the engine's hold from a
// reader's): a frame that waits for the play engine's lock leaves it counted as the play
// engine's, until the play engine gives it back.
TEST(PlayEngineStatus, CountsTheLockAFrameWaitsForAsThePlayEngines) {
    EXPECT_IN_CHILD({
        ScriptedPlayEngine playEngine;
        SERVING_BENCH(bench, kChannel, "ERROR,WARNING", false);
        ASSERT_EQ("ok", playEngine.ask(connectLine(bench)));

        EXPECT_EQ(0, tavo_mbbms_playengine_holds_buffer(0));
        ASSERT_EQ("ok", playEngine.ask("lock 0"));
        AsyncCall frame([&] { bench.playFrame(kChannel, 1, 0); });
        std::this_thread::sleep_for(milliseconds(50));  // the frame start waits for the lock
        EXPECT_EQ(1, tavo_mbbms_playengine_holds_buffer(0)) << "while a frame waits for it";
        ASSERT_EQ("ok", playEngine.ask("release 0"));
        ASSERT_TRUE(frame.endsWithin(milliseconds(5000)));
        EXPECT_EQ(0, tavo_mbbms_playengine_holds_buffer(0));
    });
}
