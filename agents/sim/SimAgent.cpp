#include "SimAgent.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "AndroidLog.h"
#include "SimLineup.h"
#include "SimServiceGuide.h"

#define SIM_LOG(prio, ...) __android_log_print(ANDROID_LOG_##prio, "TavoSimAgent", __VA_ARGS__)

using std::chrono::milliseconds;

namespace {

// Broadcast-time delays of the simulated receiver; divided by the speed.
constexpr milliseconds kScanStepTime(400);
constexpr milliseconds kSignalSettleTime(200);
constexpr milliseconds kTs0FirstReport(600);
constexpr milliseconds kTs0RepeatInterval(5000);
constexpr milliseconds kEsgCollectTime(1500);
constexpr milliseconds kRequestRoundTrip(800);
constexpr milliseconds kFirstEmergency(8000);
constexpr milliseconds kEmergencyInterval(45000);
constexpr milliseconds kEmergencyRepeat(2000);

constexpr int kMaxSessions = 2;
constexpr uint16_t kCaSystemID = 0x4A02;
constexpr uint32_t kOriginTicksPerServiceID = 360 * 22500;  // six minutes

SignalStatus signalOf(int freqDot) {
    SignalStatus status{};
    status.freqDot = freqDot;
    const SimFrequency* frequency = SimLineup::findFrequency(freqDot);
    if (frequency != nullptr) {
        status.locked = 1;
        status.strength = frequency->strengthDbm;
        status.snr = frequency->snrDb;
        status.ber = 12;
    } else {
        status.locked = 0;
        status.strength = -105;
        status.snr = 0;
        status.ber = 1000000;
    }
    return status;
}

EmergencyMessage emergencyMessage(uint16_t number) {
    EmergencyMessage message{};
    message.msgType = 1;  // test broadcast
    message.msgLevel = static_cast<uint8_t>(1 + number % 4);
    message.networkLevel = 1;
    message.networkNumber = 1;
    message.startTime = static_cast<uint32_t>(time(nullptr));
    message.duration = 600;
    memcpy(message.language, "eng", 4);
    message.msgID = number;
    snprintf(message.text, sizeof(message.text),
             "Emergency broadcast test %u: this is only a test, no action is required.",
             static_cast<unsigned>(number));
    message.textLength = static_cast<uint32_t>(strlen(message.text));
    return message;
}

std::string joined(const std::set<std::string>& items) {
    std::string text;
    for (const std::string& item : items) {
        if (!text.empty())
            text += ",";
        text += item;
    }
    return text;
}

}  // namespace

SimAgent::SimAgent() : mSettings(SimSettings::fromProperties()), mOutput(mSettings.speed) {
    SIM_LOG(INFO, "broadcast simulator created: speed %.2f, content '%s'", mSettings.speed,
            mSettings.contentDir.c_str());
}

SimAgent::~SimAgent() {
    deinit();
}

int SimAgent::preInitStep1() {
    SIM_LOG(DEBUG, "tuner powered on");
    return 0;
}

int SimAgent::preInitStep2() {
    SIM_LOG(DEBUG, "demodulator firmware loaded");
    return 0;
}

bool SimAgent::loadContentOnce() {
    if (mContentLoaded)
        return true;
    size_t loaded = 0;
    mContent.clear();
    for (size_t i = 0; i < SimLineup::serviceCount(); ++i) {
        const SimService& service = SimLineup::service(i);
        std::unique_ptr<ServiceContent> content(new ServiceContent());
        std::string error;
        if (content->load(mSettings.contentDir, service.serviceID, &error)) {
            SIM_LOG(INFO, "service %d '%s': %zu pictures, %zu AAC frames", service.serviceID,
                    service.name, content->pictures().size(), content->audioFrames().size());
            ++loaded;
        } else {
            SIM_LOG(ERROR, "service %d has no content: %s", service.serviceID, error.c_str());
            content.reset();
        }
        mContent.push_back(std::move(content));
    }
    mContentLoaded = loaded > 0;
    return mContentLoaded;
}

const ServiceContent* SimAgent::contentFor(int serviceID) const {
    for (size_t i = 0; i < mContent.size(); ++i) {
        if (SimLineup::service(i).serviceID == serviceID)
            return mContent[i].get();
    }
    return nullptr;
}

int SimAgent::init(MBBMSAgentCallback* callback, const char* dir, const char* /*dir2*/) {
    SIM_LOG(INFO, "init(dir=%s)", dir != nullptr ? dir : "(null)");
    if (callback == nullptr)
        return -1;
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (mInitialized)
            return 0;
    }
    if (!loadContentOnce()) {
        SIM_LOG(ERROR, "no service content found in '%s'", mSettings.contentDir.c_str());
        return -1;
    }
    uint64_t generation;
    {
        std::lock_guard<std::mutex> guard(mLock);
        mCallback = callback;
        mInitialized = true;
        mFreqDot = -1;
        mPendingRequest = REQUEST_NONE;
        mRequestCompletion = nullptr;
        generation = ++mSessionGeneration;
    }
    mControl.start();
    mOutput.start(callback);
    mControl.post(mSettings.scaled(kFirstEmergency), [this, generation] {
        broadcastEmergency(generation, emergencyMessage(1), false);
    });
    return 0;
}

int SimAgent::deinit() {
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (!mInitialized)
            return 0;
        mInitialized = false;
        ++mSessionGeneration;
        ++mScanGeneration;
        ++mTs0Generation;
        ++mEsgGeneration;
        ++mRequestGeneration;
        mScanning = false;
        mUpdatingEsg = false;
        mPendingRequest = REQUEST_NONE;
        mRequestCompletion = nullptr;
    }
    // Joins both threads: no callback is made after this point.
    mOutput.stop();
    mControl.stop();
    std::lock_guard<std::mutex> guard(mLock);
    mCallback = nullptr;
    SIM_LOG(INFO, "deinit done");
    return 0;
}

// Also reports the tuner's state, read under mLock. The engine asks for this at the end
// of its init, so the lock also orders the engine's own initialisation before the
// unsolicited reports (emergency broadcasts) of the control thread, which take it too.
int SimAgent::getModuleInfo(ModuleInfo* info) {
    if (info == nullptr)
        return -1;
    int freqDot;
    size_t channels;
    {
        std::lock_guard<std::mutex> guard(mLock);
        freqDot = mFreqDot;
        channels = mOutput.channelCount();
    }
    memset(info->bytes, 0, sizeof(info->bytes));
    snprintf(reinterpret_cast<char*>(info->bytes), sizeof(info->bytes),
             "TavoSim CMMB/MBBMS broadcast simulator 1.0; %zu frequency points, %zu services; "
             "speed %.2f; tuned to %d, %zu channels running",
             SimLineup::frequencyCount(), SimLineup::serviceCount(), mSettings.speed, freqDot,
             channels);
    return 0;
}

int SimAgent::setPreference(const Preference* pref) {
    if (pref == nullptr)
        return -1;
    SIM_LOG(DEBUG, "preference: apn=%.32s, sg=%.64s:%d", pref->apn, pref->sgDomain, pref->sgPort);
    return 0;
}

int SimAgent::startScan(int* freqDots, int count) {
    std::vector<int> plan;
    if (freqDots != nullptr && count > 0) {
        plan.assign(freqDots, freqDots + count);
    } else {
        for (size_t i = 0; i < SimLineup::frequencyCount(); ++i) {
            plan.push_back(SimLineup::frequency(i).freqDot);
        }
    }
    uint64_t generation;
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (!mInitialized)
            return -1;
        generation = ++mScanGeneration;
        mScanning = true;
    }
    mControl.post(mSettings.scaled(kScanStepTime),
                  [this, generation, plan] { scanStep(generation, plan, 0); });
    return 0;
}

int SimAgent::stopScan() {
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (!mInitialized)
            return -1;
        if (!mScanning)
            return 0;
        ++mScanGeneration;
        mScanning = false;
    }
    mControl.post(milliseconds(0), [this] {
        MBBMSAgentCallback* callback;
        {
            std::lock_guard<std::mutex> guard(mLock);
            callback = callbackLocked();
        }
        if (callback != nullptr)
            callback->onScanFinished(false);
    });
    return 0;
}

void SimAgent::scanStep(uint64_t generation, std::vector<int> freqDots, size_t next) {
    MBBMSAgentCallback* callback;
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (generation != mScanGeneration)
            return;
        callback = callbackLocked();
        if (next >= freqDots.size())
            mScanning = false;
    }
    if (callback == nullptr)
        return;
    if (next >= freqDots.size()) {
        callback->onScanFinished(true);
        return;
    }
    SignalStatus status = signalOf(freqDots[next]);
    callback->onSignalUpdated(status);
    mControl.post(mSettings.scaled(kScanStepTime),
                  [this, generation, freqDots, next] { scanStep(generation, freqDots, next + 1); });
}

bool SimAgent::tuneForLocked(int freqDot) {
    if (freqDot == mFreqDot)
        return true;
    if (mOutput.channelCount() > 0)
        return false;  // a running service holds the tuner
    mFreqDot = freqDot;
    return true;
}

int SimAgent::setFrequency(int freqDot) {
    if (freqDot < 0)
        return -1;
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (!mInitialized)
            return -1;
        if (!tuneForLocked(freqDot)) {
            SIM_LOG(WARN, "setFrequency(%d) refused: services running on %d", freqDot, mFreqDot);
            return -1;
        }
    }
    mControl.post(mSettings.scaled(kSignalSettleTime), [this, freqDot] { reportSignal(freqDot); });
    return 0;
}

void SimAgent::reportSignal(int freqDot) {
    MBBMSAgentCallback* callback;
    {
        std::lock_guard<std::mutex> guard(mLock);
        callback = callbackLocked();
    }
    if (callback == nullptr)
        return;
    SignalStatus status = signalOf(freqDot);
    callback->onSignalUpdated(status);
}

int SimAgent::getFrequency() {
    std::lock_guard<std::mutex> guard(mLock);
    return mFreqDot;
}

int SimAgent::getMaxSupportedSessions() {
    return kMaxSessions;
}

int SimAgent::startService(int* channelID, int freqDot, int start, int count, int mod,
                           IsmaPara* isma) {
    if (channelID == nullptr)
        return -1;
    const SimService* service = isma != nullptr
                                    ? SimLineup::findService(freqDot, isma->serviceID)
                                    : SimLineup::findServiceBySlots(freqDot, start, count);
    if (service == nullptr) {
        SIM_LOG(WARN,
                "startService: no such service on frequency point %d (serviceID %d, slots %d+%d)",
                freqDot, isma != nullptr ? isma->serviceID : -1, start, count);
        return -1;
    }
    const ServiceContent* content = contentFor(service->serviceID);
    if (content == nullptr) {
        SIM_LOG(WARN, "startService: service %d has no content", service->serviceID);
        return -1;
    }

    std::lock_guard<std::mutex> guard(mLock);
    if (!mInitialized)
        return -1;
    if (!tuneForLocked(freqDot)) {
        SIM_LOG(WARN, "startService: tuner busy on frequency point %d", mFreqDot);
        return -1;
    }
    SimChannel channel;
    channel.channelID = mNextChannelID;
    channel.service = service;
    channel.content = content;
    // Each service's broadcast clock starts at its own point in the day.
    channel.tsOrigin = static_cast<uint32_t>(service->serviceID) * kOriginTicksPerServiceID;
    if (!mOutput.addChannel(channel)) {
        SIM_LOG(WARN, "startService: no free channel for service %d", service->serviceID);
        return -1;
    }
    ++mNextChannelID;  // never reused, so a late frame of a stopped channel names no other
    *channelID = channel.channelID;
    SIM_LOG(INFO, "service %d '%s' started as channel %d (mod %d)", service->serviceID,
            service->name, channel.channelID, mod);
    return 0;
}

int SimAgent::stopService(int channelID) {
    std::lock_guard<std::mutex> guard(mLock);
    if (!mInitialized)
        return -1;
    if (!mOutput.removeChannel(channelID)) {
        SIM_LOG(WARN, "stopService(%d): no such channel", channelID);
        return -1;
    }
    SIM_LOG(INFO, "channel %d stopped", channelID);
    return 0;
}

int SimAgent::startUpdateTS0(int freqDot) {
    if (SimLineup::findFrequency(freqDot) == nullptr) {
        SIM_LOG(WARN, "startUpdateTS0(%d): no signal", freqDot);
        return -1;
    }
    uint64_t generation;
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (!mInitialized || !tuneForLocked(freqDot))
            return -1;
        generation = ++mTs0Generation;
    }
    mControl.post(mSettings.scaled(kTs0FirstReport),
                  [this, generation, freqDot] { reportTs0(generation, freqDot); });
    return 0;
}

int SimAgent::stopUpdateTS0() {
    std::lock_guard<std::mutex> guard(mLock);
    if (!mInitialized)
        return -1;
    ++mTs0Generation;
    return 0;
}

// One reading of the control table: the parameters of every service of the frequency
// point, the CA information of the scrambled ones, then TS0 itself. Repeated while the
// update runs, as the table is broadcast again and again.
void SimAgent::reportTs0(uint64_t generation, int freqDot) {
    MBBMSAgentCallback* callback;
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (generation != mTs0Generation)
            return;
        callback = callbackLocked();
    }
    if (callback == nullptr)
        return;

    std::vector<CaInfo> caInfo;
    for (size_t i = 0; i < SimLineup::serviceCount(); ++i) {
        const SimService& service = SimLineup::service(i);
        if (service.freqDot != freqDot)
            continue;
        ServiceParam param{};
        param.freqDot = freqDot;
        param.serviceID = service.serviceID;
        param.timeSlotStart = service.timeSlotStart;
        param.timeSlotCount = service.timeSlotCount;
        param.modulation = service.modulation;
        param.scrambled = service.scrambled ? 1 : 0;
        callback->onServiceParam(param);
        if (service.scrambled) {
            caInfo.push_back({kCaSystemID, static_cast<uint16_t>(service.serviceID), 1, 2});
        }
    }
    if (!caInfo.empty())
        callback->onCaInfo(caInfo.data(), static_cast<int>(caInfo.size()));
    callback->onTS0Parsed(freqDot);

    mControl.post(mSettings.scaled(kTs0RepeatInterval),
                  [this, generation, freqDot] { reportTs0(generation, freqDot); });
}

int SimAgent::startUpdateESG(int freqDot, int /*start*/, int /*count*/, int /*mod*/) {
    if (SimLineup::findFrequency(freqDot) == nullptr) {
        SIM_LOG(WARN, "startUpdateESG(%d): no signal", freqDot);
        return -1;
    }
    uint64_t generation;
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (!mInitialized || !tuneForLocked(freqDot))
            return -1;
        generation = ++mEsgGeneration;
        mUpdatingEsg = true;
    }
    mControl.post(mSettings.scaled(kEsgCollectTime),
                  [this, generation] { deliverGuide(generation); });
    return 0;
}

int SimAgent::stopUpdateESG() {
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (!mInitialized)
            return -1;
        if (!mUpdatingEsg)
            return 0;
        ++mEsgGeneration;
        mUpdatingEsg = false;
    }
    mControl.post(milliseconds(0), [this] {
        MBBMSAgentCallback* callback;
        {
            std::lock_guard<std::mutex> guard(mLock);
            callback = callbackLocked();
        }
        if (callback != nullptr)
            callback->onESGUpdated(false);
    });
    return 0;
}

void SimAgent::deliverGuide(uint64_t generation) {
    std::vector<SimGuideFragment> guide = buildServiceGuide();
    for (const SimGuideFragment& fragment : guide) {
        MBBMSAgentCallback* callback;
        {
            std::lock_guard<std::mutex> guard(mLock);
            if (generation != mEsgGeneration)
                return;  // stopped meanwhile
            callback = callbackLocked();
        }
        if (callback == nullptr)
            return;
        callback->onESGXml(fragment.type, fragment.xml.c_str());
    }
    MBBMSAgentCallback* callback;
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (generation != mEsgGeneration)
            return;
        mUpdatingEsg = false;
        callback = callbackLocked();
    }
    if (callback != nullptr)
        callback->onESGUpdated(true);
}

int SimAgent::startRequest(MBBMSRequest request, const char* name, RequestCompletion completion) {
    uint64_t generation;
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (!mInitialized)
            return -1;
        if (mPendingRequest != REQUEST_NONE) {
            SIM_LOG(WARN, "%s refused: request %d in progress", name, mPendingRequest);
            return -1;
        }
        mPendingRequest = request;
        mRequestCompletion = std::move(completion);
        generation = ++mRequestGeneration;
    }
    SIM_LOG(DEBUG, "%s sent", name);
    mControl.post(mSettings.scaled(kRequestRoundTrip),
                  [this, generation] { finishRequest(generation, true); });
    return 0;
}

void SimAgent::finishRequest(uint64_t generation, bool done) {
    MBBMSAgentCallback* callback;
    RequestCompletion completion;
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (generation != mRequestGeneration || mPendingRequest == REQUEST_NONE)
            return;
        callback = callbackLocked();
        completion = std::move(mRequestCompletion);
        mRequestCompletion = nullptr;
        mPendingRequest = REQUEST_NONE;
    }
    if (callback != nullptr && completion)
        completion(callback, done);
}

int SimAgent::requestInitGBA(int force) {
    return startRequest(
        REQUEST_INIT_GBA, force ? "GBA bootstrap (forced)" : "GBA bootstrap",
        [](MBBMSAgentCallback* callback, bool done) { callback->onRequestInitGBA(done); });
}

int SimAgent::requestUpdateSG(const char* areaName) {
    std::string area = areaName != nullptr ? areaName : "";
    std::string info =
        "area=" + area + ";sgVersion=3;services=" + std::to_string(SimLineup::serviceCount());
    std::string info2 = "sgdd=http://sg.operator.invalid/sgdd?area=" + area;
    return startRequest(REQUEST_UPDATE_SG, "SG update",
                        [info, info2](MBBMSAgentCallback* callback, bool done) {
                            callback->onRequestUpdateSG(done, info.c_str(), info2.c_str());
                        });
}

int SimAgent::requestSubscribeService(const char* const* ids, int count) {
    if (ids == nullptr || count <= 0)
        return -1;
    std::vector<std::string> items(ids, ids + count);
    return startRequest(REQUEST_SUBSCRIBE_SERVICE, "subscription",
                        [this, items](MBBMSAgentCallback* callback, bool done) {
                            if (done) {
                                std::lock_guard<std::mutex> guard(mLock);
                                mSubscriptions.insert(items.begin(), items.end());
                            }
                            callback->onRequestSubscribeService(done);
                        });
}

int SimAgent::requestUnsubscribeService(const char* const* ids, int count) {
    if (ids == nullptr || count <= 0)
        return -1;
    std::vector<std::string> items(ids, ids + count);
    return startRequest(REQUEST_UNSUBSCRIBE_SERVICE, "unsubscription",
                        [this, items](MBBMSAgentCallback* callback, bool done) {
                            if (done) {
                                std::lock_guard<std::mutex> guard(mLock);
                                for (const std::string& item : items)
                                    mSubscriptions.erase(item);
                            }
                            callback->onRequestUnsubscribeService(done);
                        });
}

int SimAgent::requestAuthorizeService(int* /*list1*/, int* /*list2*/, const char** /*names*/,
                                      int count) {
    if (count <= 0)
        return -1;
    return startRequest(
        REQUEST_AUTHORIZE_SERVICE, "authorisation",
        [](MBBMSAgentCallback* callback, bool done) { callback->onRequestAuthorizeService(done); });
}

int SimAgent::requestInquiryAccount() {
    return startRequest(REQUEST_INQUIRY_ACCOUNT, "account inquiry",
                        [this](MBBMSAgentCallback* callback, bool done) {
                            std::string info;
                            {
                                std::lock_guard<std::mutex> guard(mLock);
                                info = "msisdn=13800000000;balance=25.00;subscribed=" +
                                       joined(mSubscriptions);
                            }
                            callback->onRequestInquiryAccount(done, info.c_str());
                        });
}

int SimAgent::requestUpdateST() {
    std::string info = "stVersion=7;services=";
    for (size_t i = 0; i < SimLineup::serviceCount(); ++i) {
        if (i > 0)
            info += ",";
        info += std::to_string(SimLineup::service(i).serviceID);
    }
    return startRequest(REQUEST_UPDATE_ST, "ST update",
                        [info](MBBMSAgentCallback* callback, bool done) {
                            callback->onRequestUpdateST(done, info.c_str());
                        });
}

int SimAgent::cancelMBBMSRequest(int request) {
    uint64_t generation;
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (!mInitialized || mPendingRequest == REQUEST_NONE || request != mPendingRequest) {
            return -1;
        }
        generation = ++mRequestGeneration;  // the scheduled success no longer applies
    }
    mControl.post(milliseconds(0), [this, generation] { finishRequest(generation, false); });
    return 0;
}

// Sends an emergency message; the broadcast repeats each one once, unchanged, a little
// later, and the next one follows after a longer pause.
void SimAgent::broadcastEmergency(uint64_t generation, EmergencyMessage message, bool repeat) {
    MBBMSAgentCallback* callback;
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (generation != mSessionGeneration)
            return;
        callback = callbackLocked();
    }
    if (callback == nullptr)
        return;
    EmergencyMessage delivered = message;  // the receiver may not keep or change ours
    callback->onEmergencyMessage(delivered);
    if (!repeat) {
        mControl.post(mSettings.scaled(kEmergencyRepeat), [this, generation, message] {
            broadcastEmergency(generation, message, true);
        });
    } else {
        uint16_t next = static_cast<uint16_t>(message.msgID + 1);
        mControl.post(mSettings.scaled(kEmergencyInterval), [this, generation, next] {
            broadcastEmergency(generation, emergencyMessage(next), false);
        });
    }
}
