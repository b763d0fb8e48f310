#include "PlayEngineProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "UniqueHandle.h"

namespace {

constexpr int kStopTimeoutMs = 10000;

}  // namespace

PlayEngineProcess::~PlayEngineProcess() {
    if (running())
        stop();
}

bool PlayEngineProcess::start(std::string* error) {
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(mProgram.c_str()));
    for (const std::string& argument : mArguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);

    const UniqueFd log(open(mLogFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    if (!log) {
        *error = "cannot open " + mLogFile + ": " + strerror(errno);
        return false;
    }
    pid_t pid = fork();
    if (pid < 0) {
        *error = std::string("fork: ") + strerror(errno);
        return false;
    }
    if (pid == 0) {
        dup2(log.get(), STDOUT_FILENO);
        dup2(log.get(), STDERR_FILENO);
        execv(argv[0], argv.data());
        dprintf(STDERR_FILENO, "cannot run %s: %s\n", argv[0], strerror(errno));
        _exit(127);
    }
    mPid = pid;
    return true;
}

// The exit status, -1 when it ended by a signal, -2 when it is still running at the timeout.
int PlayEngineProcess::reap(int timeoutMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (true) {
        int status = 0;
        pid_t done = waitpid(mPid, &status, WNOHANG);
        if (done == mPid) {
            mPid = -1;
            return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        }
        if (done < 0 && errno != EINTR) {
            mPid = -1;
            return -1;
        }
        if (std::chrono::steady_clock::now() > deadline)
            return -2;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

int PlayEngineProcess::stop() {
    if (!running())
        return -1;
    ::kill(mPid, SIGTERM);
    int status = reap(kStopTimeoutMs);
    if (status == -2) {
        ::kill(mPid, SIGKILL);
        reap(kStopTimeoutMs);
        return -1;
    }
    return status;
}

void PlayEngineProcess::kill() {
    if (!running())
        return;
    ::kill(mPid, SIGKILL);
    reap(kStopTimeoutMs);
}
