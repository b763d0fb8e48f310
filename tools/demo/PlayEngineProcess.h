// The reference play engine run as a child process of the demo, its output (standard
// output and error) going to a log file.
//
// Threading: used by the demo's main thread only.
#ifndef TAVO_DEMO_PLAY_ENGINE_PROCESS_H
#define TAVO_DEMO_PLAY_ENGINE_PROCESS_H

#include <sys/types.h>

#include <string>
#include <vector>

class PlayEngineProcess {
public:
    PlayEngineProcess(const std::string& program, const std::vector<std::string>& arguments,
                      const std::string& logFile)
        : mProgram(program), mArguments(arguments), mLogFile(logFile) {}
    ~PlayEngineProcess();
    PlayEngineProcess(const PlayEngineProcess&) = delete;
    PlayEngineProcess& operator=(const PlayEngineProcess&) = delete;

    // Starts the program; the log file is appended to. False with a reason in *error.
    bool start(std::string* error);
    bool running() const { return mPid > 0; }
    pid_t pid() const { return mPid; }
    // Asks it to stop (SIGTERM) and waits for it; kills it when it does not end in time.
    // Returns its exit status, or -1 when it did not exit normally.
    int stop();
    // Kills it at once (SIGKILL) and reaps it, as a crash would end it.
    void kill();

private:
    int reap(int timeoutMs);

    std::string mProgram;
    std::vector<std::string> mArguments;
    std::string mLogFile;
    pid_t mPid = -1;
};

#endif  // TAVO_DEMO_PLAY_ENGINE_PROCESS_H
