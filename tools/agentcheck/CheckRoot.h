// The private android root a check runs the engine in: a fresh directory under /tmp with the
// checking proxy installed as the vendor library the engine loads, the system properties,
// the working directory and the storage card. Removed again when destroyed.
#ifndef TAVO_TOOLS_AGENTCHECK_CHECK_ROOT_H
#define TAVO_TOOLS_AGENTCHECK_CHECK_ROOT_H

#include <string>
#include <utility>
#include <vector>

class CheckRoot {
public:
    CheckRoot() = default;
    ~CheckRoot();
    CheckRoot(const CheckRoot&) = delete;
    CheckRoot& operator=(const CheckRoot&) = delete;

    // Creates the root and installs `proxy` as libinno.so (inno) or libsiano.so, with the
    // vendor property and `properties`. False with the reason in *error.
    bool create(const std::string& proxy, bool inno,
                const std::vector<std::pair<std::string, std::string>>& properties,
                std::string* error);
    // Points this process at the root: the engine's paths and log, and the library the proxy
    // loads.
    void exportEnvironment(const std::string& vendorLibrary) const;

    std::string resolve(const std::string& androidPath) const { return mPath + androidPath; }
    // The installed proxy library.
    std::string proxyPath() const { return mProxyPath; }

private:
    bool setProperty(const std::string& name, const std::string& value) const;

    std::string mPath;
    std::string mProxyPath;
};

// The checking proxy beside this program, or in the installed library directory relative to
// it; "" when there is none.
std::string findCheckingProxy();

#endif  // TAVO_TOOLS_AGENTCHECK_CHECK_ROOT_H
