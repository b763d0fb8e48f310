#include "ChildProcess.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

std::string runInChild(const std::function<void()>& body) {
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid < 0)
        return std::string("fork failed: ") + strerror(errno);
    if (pid == 0) {
        body();
        bool failed = ::testing::Test::HasFailure();
        fflush(stdout);
        fflush(stderr);
        // Skip atexit handlers and static destructors shared with the parent's state.
        _exit(failed ? 1 : 0);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return std::string("waitpid failed: ") + strerror(errno);
    }
    if (WIFEXITED(status)) {
        if (WEXITSTATUS(status) == 0)
            return "";
        return "child reported failures (exit status " + std::to_string(WEXITSTATUS(status)) + ")";
    }
    if (WIFSIGNALED(status))
        return "child killed by signal " + std::to_string(WTERMSIG(status));
    return "child ended abnormally";
}

int runCommand(const std::string& command, std::string* output) {
    output->clear();
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr)
        return -1;
    char block[4096];
    for (size_t got; (got = fread(block, 1, sizeof(block), pipe)) > 0;)
        output->append(block, got);
    const int status = pclose(pipe);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
