// Entry point of the reference play engine (see PlayEngineOptions.cpp for its usage).
#include <signal.h>

#include <cstdio>
#include <cstring>

#include "PlayEngine.h"
#include "PlayEngineOptions.h"
#include "SnapshotEncoder.h"

namespace {

// Set by SIGINT and SIGTERM; the only state a signal handler may touch.
volatile sig_atomic_t gStopRequested = 0;

void requestStop(int) {
    gStopRequested = 1;
}

void installSignalHandlers() {
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_handler = requestStop;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    // A stream reader (e.g. ffplay on a FIFO) that goes away must not end the play engine.
    signal(SIGPIPE, SIG_IGN);
}

}  // namespace

int main(int argc, char** argv) {
    PlayEngineOptions options;
    int parsed = parsePlayEngineOptions(argc, argv, &options);
    if (parsed == 1)
        return 0;
    if (parsed != 0)
        return parsed;
    if (!SnapshotEncoder::available()) {
        fprintf(stderr, "playengine: built without libavcodec/libswscale: snapshots will fail\n");
    }

    installSignalHandlers();
    PlayEngine playEngine(options);
    int status = playEngine.run(&gStopRequested);
    playEngine.printStatistics();
    return status;
}
