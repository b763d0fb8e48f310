#include "CheckRoot.h"

#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ProcessPaths.h"
#include "UniqueHandle.h"

namespace {

#ifndef TAVO_AGENTCHECK_INSTALLED_PROXY_DIR
#define TAVO_AGENTCHECK_INSTALLED_PROXY_DIR "../lib/tavombbms"
#endif

const char kProxyName[] = "libtavo_agentcheck_proxy.so";

bool makeDirectories(const std::string& path) {
    for (size_t at = 1; at <= path.size(); ++at) {
        if (at != path.size() && path[at] != '/')
            continue;
        std::string prefix = path.substr(0, at);
        if (mkdir(prefix.c_str(), 0777) != 0 && errno != EEXIST)
            return false;
    }
    return true;
}

bool writeAll(int fd, const char* bytes, size_t length) {
    while (length > 0) {
        ssize_t written = write(fd, bytes, length);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        bytes += written;
        length -= static_cast<size_t>(written);
    }
    return true;
}

bool copyFile(const std::string& from, const std::string& to) {
    UniqueFd in(open(from.c_str(), O_RDONLY | O_CLOEXEC));
    UniqueFd out(open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0755));
    if (!in.valid() || !out.valid())
        return false;
    char buffer[65536];
    for (;;) {
        ssize_t got = read(in.get(), buffer, sizeof(buffer));
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return false;
        if (got == 0)
            return true;
        if (!writeAll(out.get(), buffer, static_cast<size_t>(got)))
            return false;
    }
}

int removeEntry(const char* path, const struct stat*, int, struct FTW*) {
    remove(path);
    return 0;
}

}  // namespace

std::string findCheckingProxy() {
    const std::string here = executableDirectory();
    const std::string candidate =
        here + "/" + TAVO_AGENTCHECK_INSTALLED_PROXY_DIR + "/" + kProxyName;
    return access(candidate.c_str(), R_OK) == 0 ? candidate : "";
}

CheckRoot::~CheckRoot() {
    if (!mPath.empty())
        nftw(mPath.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
}

bool CheckRoot::create(const std::string& proxy, bool inno,
                       const std::vector<std::pair<std::string, std::string>>& properties,
                       std::string* error) {
    char pattern[] = "/tmp/tavo-agentcheck-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        *error = std::string("cannot create a directory in /tmp: ") + strerror(errno);
        return false;
    }
    mPath = pattern;
    for (const char* dir : {"/system/lib", "/data/property", "/data/app/cmmb", "/sdcard"}) {
        if (!makeDirectories(resolve(dir))) {
            *error = "cannot create " + resolve(dir) + ": " + strerror(errno);
            return false;
        }
    }
    mProxyPath = resolve(inno ? "/system/lib/libinno.so" : "/system/lib/libsiano.so");
    if (!copyFile(proxy, mProxyPath)) {
        *error = "cannot install the checking proxy " + proxy + ": " + strerror(errno);
        return false;
    }
    if (!setProperty("persist.mbbms.module.vendor", inno ? "inno" : "siano")) {
        *error = "cannot write the vendor property";
        return false;
    }
    for (const auto& property : properties) {
        if (!setProperty(property.first, property.second)) {
            *error = "cannot write the property " + property.first;
            return false;
        }
    }
    return true;
}

bool CheckRoot::setProperty(const std::string& name, const std::string& value) const {
    const std::string path = resolve("/data/property/" + name);
    UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    const std::string line = value + "\n";
    return fd.valid() && writeAll(fd.get(), line.data(), line.size());
}

void CheckRoot::exportEnvironment(const std::string& vendorLibrary) const {
    setenv("TAVO_ANDROID_ROOT", mPath.c_str(), 1);
    setenv("TAVO_AGENTCHECK_VENDOR", absolutePath(vendorLibrary).c_str(), 1);
    setenv("TAVO_LOG_FILE", resolve("/engine.log").c_str(), 1);
    setenv("TAVO_LOGMASK", "ERROR,WARNING", 1);
}
