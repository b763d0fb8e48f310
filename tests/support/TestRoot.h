// A fresh TAVO_ANDROID_ROOT for one test: a temporary directory with "system/lib",
// "data/property", "data/app" and "sdcard", a tuner agent library installed as libsiano.so
// and libinno.so, and the engine's log file. The environment points at it while the object
// lives; the directory is removed afterwards.
#ifndef TAVO_TESTS_SUPPORT_TEST_ROOT_H
#define TAVO_TESTS_SUPPORT_TEST_ROOT_H

#include <string>
#include <vector>

class TestRoot {
public:
    // agentLibrary: path of the agent shared object to install; empty installs none.
    explicit TestRoot(const std::string& agentLibrary = fakeAgentPath());
    ~TestRoot();
    TestRoot(const TestRoot&) = delete;
    TestRoot& operator=(const TestRoot&) = delete;

    const std::string& path() const { return mPath; }
    // The root followed by an Android path, e.g. resolve("/data/app/cmmb").
    std::string resolve(const std::string& androidPath) const { return mPath + androidPath; }

    // Writes "<root>/data/property/<name>"; removeProperty deletes it.
    void setProperty(const std::string& name, const std::string& value) const;
    void removeProperty(const std::string& name) const;
    void setVendor(const std::string& value) const {
        setProperty("persist.mbbms.module.vendor", value);
    }

    // Installs `library` as "<root>/system/lib/<name>".
    void installAgent(const std::string& library, const std::string& name) const;

    // The engine's log (TAVO_LOG_FILE), read whole.
    std::string logFile() const { return mPath + "/engine.log"; }
    std::vector<std::string> logLines() const;
    // Number of log lines containing `text`.
    int countLog(const std::string& text) const;
    bool logContains(const std::string& text) const { return countLog(text) > 0; }
    // Waits (up to a generous bound) until `n` log lines contain `text`; whether they did.
    bool waitForLog(const std::string& text, int n = 1) const;
    // Number of log lines "[LogMask::<category>][<function>():<line>]<message>..." whose
    // message starts with `message`.
    int countLogLine(const std::string& category, const std::string& function,
                     const std::string& message) const;
    void clearLog() const;

    static std::string fakeAgentPath();
    static std::string fakeAgentWithoutCreatePath();
    static std::string fakeAgentWithoutDestroyPath();

private:
    std::string mPath;
};

// Writes a whole file; throws nothing, fails the test on error.
void writeTextFile(const std::string& path, const std::string& text);
std::string readTextFile(const std::string& path);
// The size of the file at `path`; -1 when there is none.
long long fileSize(const std::string& path);

#endif  // TAVO_TESTS_SUPPORT_TEST_ROOT_H
