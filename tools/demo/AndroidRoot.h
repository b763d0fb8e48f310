// The stand-in Android file system the demo runs the engine in: a directory that
// TAVO_ANDROID_ROOT points at, with the simulator installed as the tuner agent library,
// its content, the system properties, the working directory and the storage card.
#ifndef TAVO_DEMO_ANDROID_ROOT_H
#define TAVO_DEMO_ANDROID_ROOT_H

#include <string>

class AndroidRoot {
public:
    explicit AndroidRoot(const std::string& path) : mPath(path) {}

    const std::string& path() const { return mPath; }
    // The root followed by an Android path, e.g. resolve("/sdcard").
    std::string resolve(const std::string& androidPath) const { return mPath + androidPath; }

    // Creates the directories, installs the agent library as "/system/lib/libsiano.so" and
    // the content files into "/system/etc/tavosim", and writes the vendor and simulator
    // properties. False with a reason in *error.
    bool prepare(const std::string& agentLibrary, const std::string& contentDir, double speed,
                 std::string* error);

    // Points this process (and the children it starts) at the root, with the engine's log
    // going to logFile and logMask enabling the log categories.
    void exportEnvironment(const std::string& logFile, const std::string& logMask) const;

private:
    bool setProperty(const std::string& name, const std::string& value) const;

    std::string mPath;
};

#endif  // TAVO_DEMO_ANDROID_ROOT_H
