// Command line of the reference play engine.
#ifndef TAVO_TOOLS_PLAYENGINE_OPTIONS_H
#define TAVO_TOOLS_PLAYENGINE_OPTIONS_H

#include <string>

struct PlayEngineOptions {
    std::string engineSocket;  // the engine's command socket
    std::string ownSocket;     // the path this play engine binds
    std::string video[2];      // per session: H.264 output ("" none, "-" standard output)
    std::string audio[2];      // per session: AAC (ADTS) output
    long frames = 0;           // stop after this many multiplex frames; 0 = no limit
    bool reconnect = true;     // connect again when the engine goes away
    bool verbose = false;
};

// Parses argv. Returns 0 to run, 1 after printing the help or the version, 2 after printing
// an error.
int parsePlayEngineOptions(int argc, char** argv, PlayEngineOptions* options);

#endif  // TAVO_TOOLS_PLAYENGINE_OPTIONS_H
