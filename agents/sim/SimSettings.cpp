#include "SimSettings.h"

#include <dlfcn.h>
#include <limits.h>
#include <sys/stat.h>

#include <cstdlib>

#include "AndroidLog.h"
#include "AndroidPaths.h"
#include "Properties.h"

// Where the content is installed, relative to the directory of this library's own file; the
// build tree keeps the same layout.
#ifndef TAVO_SIM_CONTENT_FROM_AGENT
#define TAVO_SIM_CONTENT_FROM_AGENT ""
#endif

namespace {

constexpr double kMinSpeed = 0.1;
constexpr double kMaxSpeed = 100.0;
constexpr const char* kInstalledContentDir = "/system/etc/tavosim";

bool isDirectory(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// The content beside the installed simulator: the directory of this library's file, with
// symbolic links resolved (an android root usually links libsiano.so to it), followed by the
// installed relative path. Empty when the library's file cannot be found.
std::string contentBesideAgent() {
    Dl_info info;
    if (*TAVO_SIM_CONTENT_FROM_AGENT == '\0' ||
        dladdr(reinterpret_cast<void*>(&contentBesideAgent), &info) == 0 ||
        info.dli_fname == nullptr)
        return "";
    char resolved[PATH_MAX];
    if (realpath(info.dli_fname, resolved) == nullptr)
        return "";
    std::string directory(resolved);
    size_t slash = directory.rfind('/');
    if (slash == std::string::npos)
        return "";
    directory.resize(slash);
    return directory + "/" + TAVO_SIM_CONTENT_FROM_AGENT;
}

}  // namespace

SimSettings SimSettings::fromProperties() {
    SimSettings settings;
    char value[PROPERTY_VALUE_MAX];

    property_get("persist.tavo.sim.speed", value, "1");
    char* end = nullptr;
    double speed = strtod(value, &end);
    if (end == value || speed < kMinSpeed || speed > kMaxSpeed) {
        __android_log_print(ANDROID_LOG_WARN, "TavoSimAgent",
                            "speed '%s' not in %.1f..%.0f, using 1", value, kMinSpeed, kMaxSpeed);
        speed = 1.0;
    }
    settings.speed = speed;

    if (property_get("persist.tavo.sim.content", value, "") > 0) {
        settings.contentDir = value;
        return settings;
    }
    // Content installed into the android root, else the content installed with the library.
    char installed[PATH_MAX];
    if (resolveAndroidPath(kInstalledContentDir, installed, sizeof(installed)) == 0 &&
        isDirectory(installed)) {
        settings.contentDir = installed;
    } else {
        settings.contentDir = contentBesideAgent();
    }
    return settings;
}

std::chrono::steady_clock::duration SimSettings::scaled(
    std::chrono::milliseconds broadcastTime) const {
    return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double, std::milli>(broadcastTime.count() / speed));
}
