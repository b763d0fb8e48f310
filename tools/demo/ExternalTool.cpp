#include "ExternalTool.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "DemoFiles.h"
#include "UniqueHandle.h"

namespace externaltool {

std::string find(const std::string& name) {
    const char* path = getenv("PATH");
    std::string dirs = path != nullptr ? path : "/usr/bin:/bin";
    size_t start = 0;
    while (start <= dirs.size()) {
        size_t colon = dirs.find(':', start);
        if (colon == std::string::npos)
            colon = dirs.size();
        std::string candidate = dirs.substr(start, colon - start) + "/" + name;
        if (colon > start && demofiles::isExecutable(candidate))
            return candidate;
        start = colon + 1;
    }
    return "";
}

int run(const std::string& program, const std::vector<std::string>& arguments,
        std::string* output) {
    int pipeFds[2];
    if (pipe(pipeFds) != 0)
        return -1;
    UniqueFd readEnd(pipeFds[0]);
    UniqueFd writeEnd(pipeFds[1]);
    pid_t pid = fork();
    if (pid < 0)
        return -1;
    if (pid == 0) {
        dup2(writeEnd.get(), STDOUT_FILENO);
        dup2(writeEnd.get(), STDERR_FILENO);
        readEnd.reset();
        writeEnd.reset();
        std::vector<char*> argv;
        argv.push_back(const_cast<char*>(program.c_str()));
        for (const std::string& argument : arguments)
            argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        execv(program.c_str(), argv.data());
        _exit(127);
    }
    writeEnd.reset();  // the output ends when the program closes its copies
    output->clear();
    char chunk[4096];
    ssize_t n;
    while ((n = read(readEnd.get(), chunk, sizeof(chunk))) != 0) {
        if (n < 0) {
            if (errno == EINTR)
                continue;
            break;
        }
        output->append(chunk, static_cast<size_t>(n));
    }
    readEnd.reset();
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace externaltool
