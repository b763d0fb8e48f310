// Command-line options of the demo.
#ifndef TAVO_DEMO_OPTIONS_H
#define TAVO_DEMO_OPTIONS_H

#include <string>

struct DemoOptions {
    int seconds = 10;    // seconds of content recorded from session 0
    double speed = 1.0;  // multiple of real time at which the simulator broadcasts
    std::string outDir = "tavo-demo-out";
    int sessions = 2;  // TV sessions shown: 1 or 2
    bool help = false;
    bool version = false;

    // Parses argv. Returns false with a message in *error for a bad option or value.
    bool parse(int argc, char** argv, std::string* error);

    static const char* usage();
};

#endif  // TAVO_DEMO_OPTIONS_H
