#include "AndroidRoot.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "DemoFiles.h"

namespace {

bool fail(std::string* error, const std::string& what) {
    *error = what + ": " + strerror(errno);
    return false;
}

bool endsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

bool AndroidRoot::prepare(const std::string& agentLibrary, const std::string& contentDir,
                          double speed, std::string* error) {
    for (const char* dir :
         {"/system/lib", "/system/etc/tavosim", "/data/property", "/data/app", "/sdcard"}) {
        if (!demofiles::makeDirectories(resolve(dir)))
            return fail(error, "cannot create " + resolve(dir));
    }
    if (!demofiles::copyFile(agentLibrary, resolve("/system/lib/libsiano.so"))) {
        return fail(error, "cannot install the simulator " + agentLibrary);
    }
    int copied = 0;
    for (const std::string& name : demofiles::listDirectory(contentDir)) {
        if (!endsWith(name, ".h264") && !endsWith(name, ".aac"))
            continue;
        if (!demofiles::copyFile(contentDir + "/" + name, resolve("/system/etc/tavosim/" + name))) {
            return fail(error, "cannot copy content " + name);
        }
        ++copied;
    }
    if (copied == 0) {
        *error = "no content (*.h264, *.aac) in " + contentDir;
        return false;
    }
    char speedText[32];
    snprintf(speedText, sizeof(speedText), "%g", speed);
    if (!setProperty("persist.mbbms.module.vendor", "siano") ||
        !setProperty("persist.tavo.sim.speed", speedText)) {
        return fail(error, "cannot write the properties");
    }
    return true;
}

bool AndroidRoot::setProperty(const std::string& name, const std::string& value) const {
    return demofiles::writeTextFile(resolve("/data/property/" + name), value + "\n");
}

void AndroidRoot::exportEnvironment(const std::string& logFile, const std::string& logMask) const {
    setenv("TAVO_ANDROID_ROOT", mPath.c_str(), 1);
    setenv("TAVO_LOG_FILE", logFile.c_str(), 1);
    setenv("TAVO_LOGMASK", logMask.c_str(), 1);
}
