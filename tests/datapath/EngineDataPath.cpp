#include "EngineDataPath.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <utility>

#include "FakeAgentAccess.h"
#include "UniqueHandle.h"

int valueOf(CmmbSharedSemaphore* sem) {
    int value = -1;
    cmmb_sem_getvalue(sem, &value);
    return value;
}

bool holdsWithin(std::chrono::milliseconds bound, const std::function<bool()>& condition) {
    const auto giveUp = std::chrono::steady_clock::now() + bound;
    while (!condition() && std::chrono::steady_clock::now() < giveUp)
        std::this_thread::yield();
    return condition();
}

void sendNal(MBBMSAgentCallback* agentSide, int channelID, Bytes& unit, Pos pos,
             unsigned long tsBase, unsigned long tsRelative) {
    agentSide->onClearVideoNalData(channelID, tsBase, tsRelative, unit.data(),
                                   static_cast<unsigned short>(unit.size()), pos);
}

void sendAac(MBBMSAgentCallback* agentSide, int channelID, Bytes& frame, unsigned long tsBase,
             unsigned long tsRelative) {
    agentSide->onClearAudioAacFrame(channelID, tsBase, tsRelative, frame.data(),
                                    static_cast<unsigned short>(frame.size()));
}

void deliverFrame(MBBMSAgentCallback* agentSide, int channelID, Bytes* units, int count,
                  unsigned long tsBase) {
    agentSide->onOutputAVStart(channelID, nullptr, 0);
    for (int i = 0; i < count; ++i)
        sendNal(agentSide, channelID, units[i], MBBMSAgent::NAL_FRAGMENT_COMPLETE, tsBase + i);
    agentSide->onOutputAVEnd(channelID, false);
}

std::string PlayEngineReader::connect(const std::string& serverPath,
                                      const std::string& clientPath) {
    mSdk.reset(tavo_pe_create(serverPath.c_str(), clientPath.c_str()));
    if (!mSdk)
        return "socket path too long";
    int status = TAVO_PE_REFUSED;
    // The command thread may still be setting up its listening socket.
    for (int attempts = 0; status == TAVO_PE_REFUSED && attempts < 2000; ++attempts) {
        status = tavo_pe_connect(mSdk.get(), 20000);
        if (status == TAVO_PE_REFUSED)
            usleep(10000);
    }
    return status == TAVO_PE_OK ? "" : tavo_pe_status_text(status);
}

std::vector<int> regionDescriptors(int session) {
    const std::string name =
        "/memfd:cmmb_shared_memory_" + (session < 0 ? "" : std::to_string(session) + " ");
    std::vector<int> fds;
    const UniqueDir descriptors(opendir("/proc/self/fd"));
    if (!descriptors)
        return fds;
    const int listing = dirfd(descriptors.get());
    while (dirent* entry = readdir(descriptors.get())) {
        char target[256] = {};
        if (entry->d_name[0] != '.' && atoi(entry->d_name) != listing &&
            readlinkat(listing, entry->d_name, target, sizeof(target) - 1) > 0 &&
            strncmp(target, name.c_str(), name.size()) == 0)
            fds.push_back(atoi(entry->d_name));
    }
    return fds;
}

long long regionInodeInThisProcess(int session) {
    const std::vector<int> fds = regionDescriptors(session);
    struct stat status;
    return !fds.empty() && fstat(fds[0], &status) == 0 ? static_cast<long long>(status.st_ino) : -1;
}

bool PlayEngineReader::readFrame(int session, ReadFrame* frame, int timeoutMs) {
    tavo_pe_frame shared;
    if (tavo_pe_wait_frame(mSdk.get(), session, timeoutMs, &shared) != TAVO_PE_OK)
        return false;
    frame->nals.clear();
    frame->aacs.clear();
    tavo_pe_item item;
    bool recordsInside = true;
    for (uint32_t i = 0; i < shared.nal_count; ++i) {
        recordsInside &= tavo_pe_frame_nal(&shared, i, &item) == TAVO_PE_OK;
        frame->nals.emplace_back(item.bytes, item.bytes + (item.bytes ? item.length : 0));
    }
    for (uint32_t i = 0; i < shared.aac_count; ++i) {
        recordsInside &= tavo_pe_frame_aac(&shared, i, &item) == TAVO_PE_OK;
        frame->aacs.emplace_back(item.bytes, item.bytes + (item.bytes ? item.length : 0));
    }
    return tavo_pe_release_frame(mSdk.get(), &shared) == TAVO_PE_OK && recordsInside;
}

EngineDataPath::EngineDataPath(const char* logMask, bool connectPlayEngine,
                               const Properties& properties)
    : EngineRig(logMask, properties) {
    if (fakeAgentAt(root().resolve("/system/lib/libsiano.so")) == nullptr)
        mError = "the fake agent is not loaded";
    else if (init() != 0)
        mError = "init failed";
    else if (connectPlayEngine)
        mError = reader.connect(serverPath(), root().path() + "/playengine.socket");
}

int EngineDataPath::startService(int session, int serviceID, int channelID, int freqDot) {
    IsmaPara isma;
    memset(&isma, 0, sizeof(isma));
    isma.serviceID = static_cast<uint16_t>(serviceID);
    agent().setNextChannelID(channelID);
    return engine().startTVService(session, freqDot, 1, 2, 3, &isma);
}

void EngineDataPath::frameStart(int channelID, const Bytes& multiplexFrame) {
    fromAgent([&](MBBMSAgentCallback& cb) {
        cb.onOutputAVStart(channelID, multiplexFrame.empty() ? nullptr : multiplexFrame.data(),
                           static_cast<int>(multiplexFrame.size()));
    });
}

void EngineDataPath::nal(int channelID, Bytes bytes, Pos pos, unsigned long tsBase,
                         unsigned long tsRelative) {
    fromAgent(
        [&](MBBMSAgentCallback& cb) { sendNal(&cb, channelID, bytes, pos, tsBase, tsRelative); });
}

void EngineDataPath::aac(int channelID, Bytes bytes, unsigned long tsBase) {
    fromAgent([&](MBBMSAgentCallback& cb) { sendAac(&cb, channelID, bytes, tsBase); });
}

void EngineDataPath::frameEnd(int channelID, bool withError) {
    fromAgent([&](MBBMSAgentCallback& cb) { cb.onOutputAVEnd(channelID, withError); });
}

void EngineDataPath::playFrame(int channelID, int nals, int aacs, bool withError,
                               const Bytes& multiplexFrame) {
    frameStart(channelID, multiplexFrame);
    for (int i = 0; i < nals; ++i)
        nal(channelID, nalUnit(4, 0x41, 20 + i), MBBMSAgent::NAL_FRAGMENT_COMPLETE, 100 + i);
    for (int i = 0; i < aacs; ++i)
        aac(channelID, pattern(30 + i), 200 + i);
    frameEnd(channelID, withError);
}
