#include "SimSettings.h"

#include <cstdlib>

#include "AndroidLog.h"
#include "Properties.h"

#include <sys/stat.h>

#include "AndroidPaths.h"

#ifndef TAVO_SIM_CONTENT_DIR
#define TAVO_SIM_CONTENT_DIR ""
#endif

namespace {

constexpr double kMinSpeed = 0.1;
constexpr double kMaxSpeed = 100.0;
constexpr const char* kInstalledContentDir = "/system/etc/tavosim";

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
    // Installed content, else the content folder of the source tree the library was built from.
    char installed[4096];
    struct stat info;
    if (resolveAndroidPath(kInstalledContentDir, installed, sizeof(installed)) == 0 &&
        stat(installed, &info) == 0 && S_ISDIR(info.st_mode)) {
        settings.contentDir = installed;
    } else {
        settings.contentDir = TAVO_SIM_CONTENT_DIR;
    }
    return settings;
}

std::chrono::steady_clock::duration SimSettings::scaled(
    std::chrono::milliseconds broadcastTime) const {
    return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double, std::milli>(broadcastTime.count() / speed));
}
