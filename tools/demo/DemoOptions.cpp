#include "DemoOptions.h"

#include <cstdlib>
#include <cstring>

namespace {

bool parseInt(const char* text, int low, int high, int* out) {
    char* end = nullptr;
    long value = strtol(text, &end, 10);
    if (end == text || *end != '\0' || value < low || value > high)
        return false;
    *out = static_cast<int>(value);
    return true;
}

bool parseDouble(const char* text, double low, double high, double* out) {
    char* end = nullptr;
    double value = strtod(text, &end);
    if (end == text || *end != '\0' || !(value >= low && value <= high))
        return false;
    *out = value;
    return true;
}

}  // namespace

const char* DemoOptions::usage() {
    return "Usage: tavo_demo [--seconds N] [--speed X] [--out DIR] [--sessions 1|2]\n"
           "       tavo_demo --help | --version\n"
           "\n"
           "Plays a simulated CMMB broadcast through the engine: scans, tunes, reads the\n"
           "control table and the service guide, runs an MBBMS request round, starts the\n"
           "reference play engine, shows TV services in one or two sessions, records\n"
           "session 0, takes a snapshot and prints what happened.\n"
           "\n"
           "  --seconds N     seconds of content to record from session 0 (1-600, default 10)\n"
           "  --speed X       broadcast at X times real time (0.1-50, default 1)\n"
           "  --out DIR       where every output file goes (default ./tavo-demo-out)\n"
           "  --sessions 1|2  number of TV sessions to show (default 2)\n"
           "  --help          this text\n"
           "  --version       the package version\n";
}

bool DemoOptions::parse(int argc, char** argv, std::string* error) {
    for (int i = 1; i < argc; ++i) {
        const char* option = argv[i];
        if (strcmp(option, "--help") == 0 || strcmp(option, "-h") == 0) {
            help = true;
            continue;
        }
        if (strcmp(option, "--version") == 0) {
            version = true;
            continue;
        }
        if (i + 1 >= argc) {
            *error = std::string("unknown option or missing value: ") + option;
            return false;
        }
        const char* value = argv[++i];
        bool ok;
        if (strcmp(option, "--seconds") == 0) {
            ok = parseInt(value, 1, 600, &seconds);
        } else if (strcmp(option, "--speed") == 0) {
            ok = parseDouble(value, 0.1, 50.0, &speed);
        } else if (strcmp(option, "--out") == 0) {
            outDir = value;
            ok = !outDir.empty();
        } else if (strcmp(option, "--sessions") == 0) {
            ok = parseInt(value, 1, 2, &sessions);
        } else {
            *error = std::string("unknown option: ") + option;
            return false;
        }
        if (!ok) {
            *error = std::string("bad value for ") + option + ": " + value;
            return false;
        }
    }
    return true;
}
