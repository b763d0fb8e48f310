// The checking proxy library: installed as the vendor library the engine loads, it loads the
// library under test (named by TAVO_AGENTCHECK_VENDOR), and wraps the agent it creates.
#include <dlfcn.h>

#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>

#include "AgentCheckReport.h"
#include "BreachLog.h"
#include "CheckingAgent.h"
#include "ContractChecker.h"

namespace {

// The one check of this process: the engine creates its agent once.
class ProxyState : public AgentCheckReport {
public:
    MBBMSAgent* createAgent() {
        std::lock_guard<std::mutex> guard(mLock);
        const char* path = getenv("TAVO_AGENTCHECK_VENDOR");
        if (path == nullptr || *path == '\0') {
            mLoadError = "TAVO_AGENTCHECK_VENDOR is not set";
            return nullptr;
        }
        mVendorLibrary = dlopen(path, RTLD_LAZY);
        if (mVendorLibrary == nullptr) {
            const char* error = dlerror();
            mLoadError = error != nullptr ? error : "cannot load the library";
            return nullptr;
        }
        auto create = reinterpret_cast<CreateAgentFunc>(dlsym(mVendorLibrary, "createAgent"));
        mDestroy = reinterpret_cast<DestroyAgentFunc>(dlsym(mVendorLibrary, "destroyAgent"));
        if (create == nullptr) {
            mLog.report(Breach::MISSING_EXPORT, "%s does not export createAgent", path);
            mLoadError = "no createAgent";
            return nullptr;
        }
        if (mDestroy == nullptr)
            mLog.report(Breach::MISSING_EXPORT, "%s does not export destroyAgent", path);
        MBBMSAgent* vendor = create();
        if (vendor == nullptr) {
            mLoadError = "createAgent returned null";
            return nullptr;
        }
        mAgent.reset(new CheckingAgent(vendor, &mChecker));
        return mAgent.get();
    }

    void destroyAgent(MBBMSAgent* agent) {
        std::lock_guard<std::mutex> guard(mLock);
        if (agent == nullptr || agent != mAgent.get())
            return;
        if (mDestroy != nullptr)
            mDestroy(mAgent->vendor());
        mAgent.reset();
    }

    bool vendorLoaded(std::string* error) override {
        std::lock_guard<std::mutex> guard(mLock);
        *error = mLoadError;
        return mAgent != nullptr;
    }
    std::vector<BreachSummary> breaches() override { return mLog.summaries(); }
    std::vector<ChannelSummary> channels() override { return mChecker.channels(); }
    void expireOpenFrame(int maxAgeMs) override {
        CheckingAgent* agent;
        {
            std::lock_guard<std::mutex> guard(mLock);
            agent = mAgent.get();
        }
        if (agent != nullptr)
            agent->endExpiredFrame(std::chrono::milliseconds(maxAgeMs));
    }
    void finish() override { mChecker.finish(); }

private:
    BreachLog mLog;
    ContractChecker mChecker{&mLog};
    std::mutex mLock;
    void* mVendorLibrary = nullptr;         // guarded by mLock; kept loaded for the process's life
    DestroyAgentFunc mDestroy = nullptr;    // guarded by mLock
    std::string mLoadError;                 // guarded by mLock
    std::unique_ptr<CheckingAgent> mAgent;  // guarded by mLock
};

ProxyState& state() {
    static ProxyState* proxy =
        new ProxyState();  // never destroyed: vendor threads may outlive exit
    return *proxy;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) MBBMSAgent* createAgent() {
    return state().createAgent();
}

__attribute__((visibility("default"))) void destroyAgent(MBBMSAgent* agent) {
    state().destroyAgent(agent);
}

__attribute__((visibility("default"))) AgentCheckReport* tavoAgentCheckReport() {
    return &state();
}

}  // extern "C"
