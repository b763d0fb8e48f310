#include "TestRoot.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

namespace {

void makeDirs(const std::string& path) {
    std::string partial;
    std::stringstream parts(path);
    std::string part;
    while (std::getline(parts, part, '/')) {
        if (part.empty())
            continue;
        partial += "/" + part;
        mkdir(partial.c_str(), 0777);
    }
}

void copyFile(const std::string& from, const std::string& to) {
    std::ifstream in(from, std::ios::binary);
    ASSERT_TRUE(in.good()) << "cannot read " << from;
    std::ofstream out(to, std::ios::binary | std::ios::trunc);
    out << in.rdbuf();
    ASSERT_TRUE(out.good()) << "cannot write " << to;
}

}  // namespace

void writeTextFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::trunc);
    out << text;
    ASSERT_TRUE(out.good()) << "cannot write " << path;
}

std::string readTextFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream content;
    content << in.rdbuf();
    return content.str();
}

long long fileSize(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 ? status.st_size : -1;
}

TestRoot::TestRoot(const std::string& agentLibrary) {
    const char* tmp = getenv("TMPDIR");
    std::string pattern =
        std::string(tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp") + "/tavo-root-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) == nullptr) {
        ADD_FAILURE() << "mkdtemp failed";
        return;
    }
    mPath = buffer.data();
    for (const char* dir : {"/system/lib", "/data/property", "/data/app", "/sdcard"})
        makeDirs(mPath + dir);
    if (!agentLibrary.empty()) {
        installAgent(agentLibrary, "libsiano.so");
        installAgent(agentLibrary, "libinno.so");
    }
    setenv("TAVO_ANDROID_ROOT", mPath.c_str(), 1);
    setenv("TAVO_LOG_FILE", logFile().c_str(), 1);
}

TestRoot::~TestRoot() {
    unsetenv("TAVO_ANDROID_ROOT");
    unsetenv("TAVO_LOG_FILE");
    if (!mPath.empty() && getenv("TAVO_KEEP_TEST_ROOT") == nullptr) {
        std::string command = "rm -rf '" + mPath + "'";
        if (system(command.c_str()) != 0)
            fprintf(stderr, "could not remove %s\n", mPath.c_str());
    }
}

void TestRoot::setProperty(const std::string& name, const std::string& value) const {
    writeTextFile(mPath + "/data/property/" + name, value + "\n");
}

void TestRoot::removeProperty(const std::string& name) const {
    unlink((mPath + "/data/property/" + name).c_str());
}

void TestRoot::installAgent(const std::string& library, const std::string& name) const {
    copyFile(library, mPath + "/system/lib/" + name);
}

std::vector<std::string> TestRoot::logLines() const {
    std::vector<std::string> lines;
    std::stringstream content(readTextFile(logFile()));
    std::string line;
    while (std::getline(content, line))
        lines.push_back(line);
    return lines;
}

int TestRoot::countLog(const std::string& text) const {
    int count = 0;
    for (const std::string& line : logLines())
        count += line.find(text) != std::string::npos;
    return count;
}

bool TestRoot::waitForLog(const std::string& text, int n) const {
    for (int i = 0; i < 1500 && countLog(text) < n; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return countLog(text) >= n;
}

int TestRoot::countLogLine(const std::string& category, const std::string& function,
                           const std::string& message) const {
    const std::string prefix = "[LogMask::" + category + "][" + function + "():";
    int count = 0;
    for (const std::string& line : logLines()) {
        size_t at = line.find(prefix);
        if (at == std::string::npos)
            continue;
        at = line.find(']', at + prefix.size());
        count += at != std::string::npos && line.compare(at + 1, message.size(), message) == 0;
    }
    return count;
}

void TestRoot::clearLog() const {
    truncate(logFile().c_str(), 0);
}

std::string TestRoot::fakeAgentPath() {
    return TAVO_FAKE_AGENT_PATH;
}
std::string TestRoot::fakeAgentWithoutCreatePath() {
    return TAVO_FAKE_AGENT_NOCREATE_PATH;
}
std::string TestRoot::fakeAgentWithoutDestroyPath() {
    return TAVO_FAKE_AGENT_NODESTROY_PATH;
}
