// The multiplex-frame bracket as the play engine sees it: which buffers are locked, emptied,
// handed over and signalled, what happens when the reader does not keep up, and the
// per-channel statistics and dump files.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <regex>
#include <sstream>
#include <thread>

#include "ChildProcess.h"
#include "EngineDataPath.h"

namespace {

using Pos = MBBMSAgent::NAL_FRAGMENT_POS_IND;
const Pos COMPLETE = MBBMSAgent::NAL_FRAGMENT_COMPLETE;
const Pos START = MBBMSAgent::NAL_FRAGMENT_START;

// One frame of channel `channel` with `nals` complete units and `aacs` audio frames.
void playFrame(EngineDataPath& bench, int channel, int nals, int aacs, bool withError = false) {
    bench.frameStart(channel);
    for (int i = 0; i < nals; ++i)
        bench.nal(channel, nalUnit(4, 0x41, 20 + i, static_cast<unsigned char>(i)), COMPLETE,
                  100 + i, i);
    for (int i = 0; i < aacs; ++i)
        bench.aac(channel, pattern(30 + i, static_cast<unsigned char>(i)), 200 + i, i);
    bench.frameEnd(channel, withError);
}

// Runs fn on a thread of its own; true when it finished within a generous bound (a broken
// lock protocol fails the test instead of hanging it).
bool finishesOnItsOwn(std::function<void()> fn) {
    auto done = std::async(std::launch::async, std::move(fn));
    bool finished = done.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
    if (!finished) {
        ADD_FAILURE() << "call did not return";
        fflush(nullptr);
        _exit(1);  // the blocked thread cannot be joined
    }
    return finished;
}

TEST(FrameHandOff, ReaderInAnotherProcessFindsTheFrameAtTheDocumentedOffsets) {
    EXPECT_IN_CHILD({
        EngineDataPath::Options options;
        options.connectPlayEngine = false;
        EngineDataPath bench(options);
        ASSERT_EQ("", bench.setUpError());

        int ready[2], verdict[2];
        ASSERT_EQ(0, pipe(ready));
        ASSERT_EQ(0, pipe(verdict));
        pid_t playEngine = fork();
        ASSERT_NE(-1, playEngine);
        if (playEngine == 0) {
            // The play engine: receives the descriptors, checks the fresh buffer, then reads
            // one frame by the reader contract and checks its raw bytes.
            std::ostringstream problems;
            PlayEngineReader reader;
            std::string error = reader.connect(bench.root.resolve("/data/app/cmmb.socket"),
                                               bench.root.path() + "/pe.socket");
            if (!error.empty())
                problems << error << "; ";
            for (int s = 0; error.empty() && s < 2; ++s) {
                struct stat status;
                fstat(reader.buffer(s).fd(), &status);
                if (status.st_size != 74772)
                    problems << "region size " << status.st_size << "; ";
                const unsigned char* raw = reader.buffer(s).bytes();
                uint32_t words[5];
                memcpy(words, raw, sizeof(words));
                if (words[0] != 0 || words[1] != 1 || words[2] != 0 || words[3] != 0 ||
                    words[4] != 0)
                    problems << "fresh header of session " << s << " is wrong; ";
            }
            char go = 'r';
            if (write(ready[1], &go, 1) != 1)
                _exit(2);
            if (error.empty()) {
                CmmbSharedBuffer* b = reader.buffer(0).get();
                if (cmmb_sem_timedwait(&b->mutexDataAvailable, 20000) != 0)
                    problems << "no frame; ";
                if (cmmb_sem_timedwait(&b->mutexDataAccessable, 20000) != 0)
                    problems << "no lock; ";
                const unsigned char* raw = reader.buffer(0).bytes();
                auto word = [&](size_t offset) {
                    uint32_t value;
                    memcpy(&value, raw + offset, 4);
                    return value;
                };
                if (word(8) != 1 || word(12) != 1)
                    problems << "counts " << word(8) << "," << word(12) << "; ";
                if (word(16) != 96 + 207)
                    problems << "dataLength " << word(16) << "; ";
                // NAL record 0 at 20: tsBase, tsRelative, length, offset, pos.
                if (word(20) != 1000 || word(24) != 20 || word(28) != 96 || word(32) != 0 ||
                    word(36) != 3)
                    problems << "NAL record; ";
                // AAC record 0 at 5140: tsBase, tsRelative, length, offset.
                if (word(5140) != 2000 || word(5144) != 30 || word(5148) != 207 || word(5152) != 96)
                    problems << "AAC record; ";
                Bytes unit = nalUnit(4, 0x65, 100, 3);
                if (memcmp(raw + 9236, unit.data() + 4, 96) != 0)
                    problems << "NAL payload; ";
                const unsigned char adts[7] = {0xFF, 0xF9, 0x58, 0x80, 0x19, 0xFF, 0xFC};
                if (memcmp(raw + 9236 + 96, adts, 7) != 0)
                    problems << "ADTS header; ";
                if (memcmp(raw + 9236 + 103, pattern(200, 5).data(), 200) != 0)
                    problems << "AAC payload; ";
                b->nalCount = 0;
                b->aacCount = 0;
                cmmb_sem_post(&b->mutexDataAccessable);
            }
            std::string text = problems.str();
            if (write(verdict[1], text.c_str(), text.size()) < 0)
                _exit(3);
            _exit(0);
        }
        close(ready[1]);
        close(verdict[1]);
        char go;
        ASSERT_EQ(1, read(ready[0], &go, 1));

        ASSERT_EQ(0, bench.startService(0, 7, 40));
        bench.frameStart(40);
        bench.nal(40, nalUnit(4, 0x65, 100, 3), COMPLETE, 1000, 20);
        bench.aac(40, pattern(200, 5), 2000, 30);
        bench.frameEnd(40);

        std::string problems;
        char chunk[256];
        ssize_t n;
        while ((n = read(verdict[0], chunk, sizeof(chunk))) > 0)
            problems.append(chunk, n);
        int status = 0;
        waitpid(playEngine, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
        EXPECT_EQ("", problems);

        // The reader fetched the frame, so the next one finds the buffer empty.
        playFrame(bench, 40, 1, 0);
        EXPECT_EQ(0, bench.root.countLog("A/V DATA LOST"));
    });
}

TEST(FrameHandOff, TwoSessionsOnOneChannelReceiveIdenticalBuffers) {
    EXPECT_IN_CHILD({
        EngineDataPath bench;
        ASSERT_EQ("", bench.setUpError());
        ASSERT_EQ(0, bench.startService(0, 7, 40));
        ASSERT_EQ(0, bench.startService(1, 7, 99));
        EXPECT_EQ(1, bench.agent->countCalls("startService"));

        bench.frameStart(40);
        for (int s = 0; s < 2; ++s)
            EXPECT_EQ(0, EngineDataPath::valueOf(&bench.buffer(s)->mutexDataAccessable))
                << "buffer " << s << " is locked for the frame";
        bench.nal(40, nalUnit(4, 0x41, 40), START, 5, 6);
        bench.nal(40, pattern(33), MBBMSAgent::NAL_FRAGMENT_END);
        bench.aac(40, pattern(21), 7, 8);
        bench.nal(40, nalUnit(3, 0x65, 50, 1), COMPLETE, 9, 10);
        bench.frameEnd(40);

        CmmbSharedBuffer* first = bench.buffer(0);
        CmmbSharedBuffer* second = bench.buffer(1);
        ASSERT_EQ(2u, first->nalCount);
        ASSERT_EQ(1u, first->aacCount);
        const size_t header = offsetof(CmmbSharedBuffer, nalCount);
        const size_t used = offsetof(CmmbSharedBuffer, data) + first->dataLength;
        EXPECT_EQ(0, memcmp(reinterpret_cast<unsigned char*>(first) + header,
                            reinterpret_cast<unsigned char*>(second) + header, used - header));
        for (int s = 0; s < 2; ++s) {
            EXPECT_EQ(1, EngineDataPath::valueOf(&bench.buffer(s)->mutexDataAccessable));
            EXPECT_EQ(1, EngineDataPath::valueOf(&bench.buffer(s)->mutexDataAvailable));
        }
        // Session 0 is handed over before session 1.
        std::vector<std::string> lines = bench.root.logLines();
        int first0 = -1, first1 = -1;
        for (size_t i = 0; i < lines.size(); ++i) {
            if (first0 < 0 && lines[i].find("mutexDataAvailable(session=0)++") != std::string::npos)
                first0 = i;
            if (first1 < 0 && lines[i].find("mutexDataAvailable(session=1)++") != std::string::npos)
                first1 = i;
        }
        EXPECT_GE(first0, 0);
        EXPECT_LT(first0, first1);
    });
}

TEST(FrameHandOff, FrameTheReaderHasNotFetchedIsReportedLost) {
    EXPECT_IN_CHILD({
        EngineDataPath bench;
        ASSERT_EQ("", bench.setUpError());
        ASSERT_EQ(0, bench.startService(0, 7, 40));
        playFrame(bench, 40, 3, 2);
        bench.frameStart(40);
        EXPECT_EQ(1, bench.root.countLog("A/V DATA LOST(nalCount=3, aacCount=2) due to playengine "
                                         "doesn't fetch them in time"));
        CmmbSharedBuffer* b = bench.buffer(0);
        EXPECT_EQ(0u, b->nalCount);
        EXPECT_EQ(0u, b->aacCount);
        EXPECT_EQ(0u, b->dataLength);
        bench.frameEnd(40);
        // Every frame is signalled, fetched or not.
        EXPECT_EQ(2, EngineDataPath::valueOf(&b->mutexDataAvailable));

        // A reader catching up gets the newest frame, then an empty one for the stale signal.
        ReadFrame frame;
        ASSERT_TRUE(bench.reader.readFrame(0, &frame));
        EXPECT_TRUE(frame.nals.empty() && frame.aacs.empty());
        playFrame(bench, 40, 1, 1);
        ASSERT_TRUE(bench.reader.readFrame(0, &frame));
        EXPECT_EQ(1u, frame.nals.size());
        EXPECT_EQ(1u, frame.aacs.size());
        EXPECT_EQ(1, bench.root.countLog("A/V DATA LOST"));
    });
}

TEST(FrameHandOff, FrameEndedWithErrorIsHandedOverEmpty) {
    EXPECT_IN_CHILD({
        EngineDataPath bench;
        ASSERT_EQ("", bench.setUpError());
        ASSERT_EQ(0, bench.startService(0, 7, 40));
        playFrame(bench, 40, 2, 2, true);
        ReadFrame frame;
        ASSERT_TRUE(bench.reader.readFrame(0, &frame, 5000)) << "the frame was not signalled";
        EXPECT_TRUE(frame.nals.empty());
        EXPECT_TRUE(frame.aacs.empty());
        EXPECT_EQ(1, bench.root.countLog("after demux, withError = true, DROP this MFS frame"));
        playFrame(bench, 40, 1, 0);
        EXPECT_EQ(0, bench.root.countLog("A/V DATA LOST"));
    });
}

TEST(FrameHandOff, UnknownChannelHoldsTheSessionLockOnlyForTheFrame) {
    EXPECT_IN_CHILD({
        EngineDataPath bench;
        ASSERT_EQ("", bench.setUpError());
        ASSERT_EQ(0, bench.startService(0, 7, 40));
        playFrame(bench, 55, 1, 1);
        EXPECT_EQ(3, bench.root.countLog("channelIDToIndex(55)=-1"));  // start, NAL, AAC
        EXPECT_EQ(1, bench.root.countLog("ChannelIDToIndex(55)=-1"));
        EXPECT_EQ(0u, bench.buffer(0)->dataLength);
        EXPECT_EQ(0, EngineDataPath::valueOf(&bench.buffer(0)->mutexDataAvailable));
        // The session lock is free again: start and stop do not wait.
        int started = -1, stopped = -1;
        EXPECT_TRUE(finishesOnItsOwn([&] { started = bench.startService(1, 8, 41); }));
        EXPECT_TRUE(finishesOnItsOwn([&] { stopped = bench.engine->stopTVService(1); }));
        EXPECT_EQ(0, started);
        EXPECT_EQ(0, stopped);
        // ...and taken only once: a frame in progress still keeps a start waiting.
        bench.frameStart(40);
        auto start = std::async(std::launch::async, [&] { return bench.startService(1, 8, 41); });
        EXPECT_EQ(std::future_status::timeout, start.wait_for(std::chrono::milliseconds(200)));
        bench.frameEnd(40);
        ASSERT_EQ(std::future_status::ready, start.wait_for(std::chrono::seconds(20)));
        EXPECT_EQ(0, start.get());
    });
}

TEST(FrameHandOff, DeinitDuringAFrameUnlocksItsBuffersAndItsLateEndIsIgnored) {
    EXPECT_IN_CHILD({
        EngineDataPath bench;
        ASSERT_EQ("", bench.setUpError());
        ASSERT_EQ(0, bench.startService(0, 7, 40));
        ASSERT_EQ(0, bench.startService(1, 7, 40));
        bench.frameStart(40);
        bench.nal(40, nalUnit(4, 0x65, 30), COMPLETE);
        ASSERT_EQ(0, bench.engine->deinit());
        for (int s = 0; s < 2; ++s)
            EXPECT_EQ(1, EngineDataPath::valueOf(&bench.buffer(s)->mutexDataAccessable))
                << "the play engine would wait for ever on buffer " << s;
        EXPECT_EQ(1, bench.root.countLog("is abandoned, its buffers are unlocked"));

        ASSERT_EQ(0, bench.engine->init(&bench.callback, nullptr));
        ASSERT_EQ(0, bench.startService(0, 7, 40));
        bench.frameEnd(40);  // the agent ends the frame it began before the deinit
        EXPECT_EQ(1, bench.root.countLog("frame end without frame start, channelID=40, ignored"));
        // The new session lock was not released by that end: a frame still holds starts off.
        bench.frameStart(40);
        auto start = std::async(std::launch::async, [&] { return bench.startService(1, 8, 41); });
        EXPECT_EQ(std::future_status::timeout, start.wait_for(std::chrono::milliseconds(200)));
        bench.frameEnd(40);
        ASSERT_EQ(std::future_status::ready, start.wait_for(std::chrono::seconds(20)));
        EXPECT_EQ(0, start.get());
    });
}

TEST(FrameHandOff, SessionStartWaitsForTheFrameInProgress) {
    EXPECT_IN_CHILD({
        EngineDataPath bench;
        ASSERT_EQ("", bench.setUpError());
        ASSERT_EQ(0, bench.startService(0, 7, 40));
        bench.frameStart(40);
        auto start = std::async(std::launch::async, [&] { return bench.startService(1, 8, 41); });
        EXPECT_EQ(std::future_status::timeout, start.wait_for(std::chrono::milliseconds(200)))
            << "a session was attached during a frame";
        bench.frameEnd(40);
        ASSERT_EQ(std::future_status::ready, start.wait_for(std::chrono::seconds(20)));
        EXPECT_EQ(0, start.get());
    });
}

TEST(FrameHandOff, OnlyTheRecordingSessionIsRecordedAndBeforeItsBufferIsUnlocked) {
    EXPECT_IN_CHILD({
        EngineDataPath bench;
        ASSERT_EQ("", bench.setUpError());
        ASSERT_EQ(0, bench.startService(0, 7, 40));
        ASSERT_EQ(0, bench.startService(1, 7, 40));
        std::string path = bench.root.path() + "/session1.3gp";
        int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
        ASSERT_LE(0, fd);
        ASSERT_EQ(0, bench.engine->startRecording(1, fd));
        bench.root.clearLog();
        playFrame(bench, 40, 2, 2);
        playFrame(bench, 40, 1, 1);
        EXPECT_EQ(0, bench.root.countLog("session=0, free space="));
        EXPECT_EQ(2, bench.root.countLog("session=1, free space="));
        // Each recording step of session 1 comes between the frame's start and the unlock
        // of that session's buffer.
        int recordedWhileLocked = 0;
        bool locked = false;
        for (const std::string& line : bench.root.logLines()) {
            if (line.find("mutexDataAccessable(session=1)++") != std::string::npos)
                locked = false;
            if (line.find("[LogMask::MAIN]") != std::string::npos &&
                line.find("session=1, channelID=40") != std::string::npos)
                locked = true;
            if (line.find("session=1, free space=") != std::string::npos && locked)
                ++recordedWhileLocked;
        }
        EXPECT_EQ(2, recordedWhileLocked);
        // The units played here are not decodable video, so the recording itself is empty.
        bench.engine->stopRecording(1);
        close(fd);
    });
}

TEST(FrameHandOff, StatisticsFileGetsOneLinePerFrameAndSession) {
    EXPECT_IN_CHILD({
        EngineDataPath bench;
        ASSERT_EQ("", bench.setUpError());
        ASSERT_EQ(0, bench.startService(0, 7, 40));
        ASSERT_EQ(0, bench.startService(1, 7, 40));
        playFrame(bench, 40, 3, 2);
        playFrame(bench, 40, 1, 4);
        ASSERT_EQ(0, bench.engine->stopTVService(0));
        ASSERT_EQ(0, bench.engine->stopTVService(1));  // closes the file

        std::string text = readTextFile(bench.root.resolve("/data/app/cmmb/7.time"));
        std::istringstream lines(text);
        std::string line;
        std::vector<std::string> counts;
        int expectedFrame = 1;
        const std::regex format("^(\\d+), (\\d+), (\\d+), (\\d+)$");
        while (std::getline(lines, line)) {
            std::smatch match;
            ASSERT_TRUE(std::regex_match(line, match, format)) << line;
            // Two sessions on the channel advance the count twice per frame.
            EXPECT_EQ(std::to_string(expectedFrame++), match[1].str());
            EXPECT_LT(std::stoul(match[2].str()), 60000u);
            counts.push_back(match[3].str() + "/" + match[4].str());
        }
        EXPECT_EQ((std::vector<std::string>{"3/2", "3/2", "1/4", "1/4"}), counts);
        EXPECT_EQ(4, bench.root.countLog("delta="));
        const std::regex logFormat(
            ".*\\[LogMask::STATISTICS\\].*mFrameCount=\\d+, \\d+:\\d+, delta=\\d+ ms$");
        int matching = 0;
        for (const std::string& logLine : bench.root.logLines())
            matching += std::regex_match(logLine, logFormat);
        EXPECT_EQ(4, matching);
    });
}

// Reads the delta column of the statistics file.
std::vector<unsigned long> deltas(const std::string& path) {
    std::vector<unsigned long> result;
    std::istringstream lines(readTextFile(path));
    std::string line;
    while (std::getline(lines, line)) {
        size_t comma = line.find(", ");
        if (comma != std::string::npos)
            result.push_back(std::stoul(line.substr(comma + 2)));
    }
    return result;
}

long millisecondsSince(const struct timeval& then) {
    struct timeval now;
    gettimeofday(&now, nullptr);
    return (now.tv_sec - then.tv_sec) * 1000 + (now.tv_usec - then.tv_usec) / 1000;
}

TEST(FrameHandOff, FirstFrameIsTimedFromTheChannelStartLaterOnesFromThePreviousFrame) {
    EXPECT_IN_CHILD({
        EngineDataPath bench;
        ASSERT_EQ("", bench.setUpError());
        ASSERT_EQ(0, bench.startService(0, 7, 40));
        usleep(600 * 1000);
        bench.frameStart(40);
        struct timeval beforeFirstEnd;  // the second frame is timed from after this
        gettimeofday(&beforeFirstEnd, nullptr);
        bench.frameEnd(40);
        playFrame(bench, 40, 1, 1);
        const long window = millisecondsSince(beforeFirstEnd);
        ASSERT_EQ(0, bench.engine->stopTVService(0));

        std::vector<unsigned long> measured = deltas(bench.root.resolve("/data/app/cmmb/7.time"));
        ASSERT_EQ(2u, measured.size());
        EXPECT_GE(measured[0], 600u);
        EXPECT_LE(measured[1], static_cast<unsigned long>(window + 1));
    });
}

TEST(FrameHandOff, FrameDumpGetsTheRawFrameOncePerAttachedSession) {
    EXPECT_IN_CHILD({
        EngineDataPath bench;
        ASSERT_EQ("", bench.setUpError());
        ASSERT_EQ(0, bench.startService(0, 9, 40));
        ASSERT_EQ(0, bench.startService(1, 9, 40));
        Bytes raw = pattern(64, 11);
        bench.frameStart(40, raw);
        bench.frameEnd(40);
        ASSERT_EQ(0, bench.engine->stopTVService(1));
        ASSERT_EQ(0, bench.engine->stopTVService(0));
        std::string dump = readTextFile(bench.root.resolve("/sdcard//9.mfs"));
        std::string once(raw.begin(), raw.end());
        EXPECT_EQ(once + once, dump);
    });
}

TEST(FrameHandOff, NoStatisticsOrDumpFilesWhenTheirSwitchesAreOff) {
    EXPECT_IN_CHILD({
        EngineDataPath::Options options;
        options.logMask = "ERROR,WARNING,MAIN,SESSION";
        EngineDataPath bench(options);
        ASSERT_EQ("", bench.setUpError());
        ASSERT_EQ(0, bench.startService(0, 7, 40));
        playFrame(bench, 40, 1, 1);
        EXPECT_NE(0, access(bench.root.resolve("/data/app/cmmb/7.time").c_str(), F_OK));
        EXPECT_NE(0, access(bench.root.resolve("/sdcard//7.mfs").c_str(), F_OK));
        EXPECT_EQ(1, bench.root.countLog(
                         "session=0, channelID=40, nalCount=1, aacCount=1, baseTime=200"));
    });
}

}  // namespace
