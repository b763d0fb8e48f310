#include "EngineLog.h"

#include <cstdio>
#include <thread>

#include "DemoFiles.h"

namespace {

const char kFrameEnd[] = "]session=";  // "session=%d, channelID=%d, ..." at frame end
const char kFrameEndTail[] = ", channelID=";
const char kRecorded[] = ", free space=";  // "session=%d, free space=%lld" per recorded frame
const char kLost[] = "A/V DATA LOST";

}  // namespace

long long EngineLog::mark() const {
    long long size = demofiles::fileSize(mPath);
    return size < 0 ? 0 : size;
}

std::string EngineLog::slice(long long from, long long to) const {
    std::string bytes;
    if (!demofiles::readFile(mPath, &bytes))
        return "";
    size_t begin = from < 0 ? 0 : static_cast<size_t>(from);
    size_t end = to < 0 ? bytes.size() : static_cast<size_t>(to);
    if (end > bytes.size())
        end = bytes.size();
    if (begin >= end)
        return "";
    return bytes.substr(begin, end - begin);
}

int EngineLog::count(const std::string& text, long long from, long long to) const {
    std::string bytes = slice(from, to);
    int n = 0;
    for (size_t at = bytes.find(text); at != std::string::npos; at = bytes.find(text, at + 1))
        ++n;
    return n;
}

bool EngineLog::waitForCount(const std::string& text, int n, long long from,
                             std::chrono::milliseconds timeout) const {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (count(text, from) < n) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

EngineLog::SessionFrames EngineLog::sessionFrames(int session, long long from, long long to) const {
    std::string bytes = slice(from, to);
    SessionFrames frames;
    int pendingLost = 0;
    size_t lineStart = 0;
    while (lineStart < bytes.size()) {
        size_t lineEnd = bytes.find('\n', lineStart);
        if (lineEnd == std::string::npos)
            lineEnd = bytes.size();
        std::string line = bytes.substr(lineStart, lineEnd - lineStart);
        lineStart = lineEnd + 1;

        if (line.find(kLost) != std::string::npos) {
            ++pendingLost;
            continue;
        }
        size_t at = line.find(kFrameEnd);
        if (at == std::string::npos)
            continue;
        int lineSession = -1;
        if (sscanf(line.c_str() + at + sizeof(kFrameEnd) - 1, "%d", &lineSession) != 1)
            continue;
        if (line.find(kFrameEndTail, at) != std::string::npos) {
            if (pendingLost > 0) {
                --pendingLost;
                if (lineSession == session)
                    ++frames.lost;
            }
            if (lineSession == session)
                ++frames.delivered;
        } else if (line.find(kRecorded, at) != std::string::npos && lineSession == session) {
            ++frames.recorded;
        }
    }
    return frames;
}
