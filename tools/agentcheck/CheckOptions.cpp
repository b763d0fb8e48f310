#include "CheckOptions.h"

#include <cstdlib>
#include <cstring>

namespace {

const int kFrequencyPoints = 48;
const int kMaxSeconds = 600;
const size_t kMaxServices = 2;

bool parseInt(const std::string& text, int low, int high, int* value) {
    if (text.empty())
        return false;
    char* end = nullptr;
    long parsed = strtol(text.c_str(), &end, 10);
    if (*end != '\0' || parsed < low || parsed > high)
        return false;
    *value = static_cast<int>(parsed);
    return true;
}

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    size_t begin = 0;
    for (;;) {
        size_t at = text.find(separator, begin);
        parts.push_back(text.substr(begin, at - begin));
        if (at == std::string::npos)
            return parts;
        begin = at + 1;
    }
}

bool parseFreqs(const std::string& text, std::vector<int>* freqDots) {
    freqDots->clear();
    for (const std::string& part : split(text, ',')) {
        int freqDot;
        if (!parseInt(part, 0, kFrequencyPoints - 1, &freqDot))
            return false;
        freqDots->push_back(freqDot);
    }
    return !freqDots->empty();
}

bool parseService(const std::string& text, ServiceChoice* service) {
    std::vector<std::string> parts = split(text, ':');
    return parts.size() == 5 && parseInt(parts[0], 0, kFrequencyPoints - 1, &service->freqDot) &&
           parseInt(parts[1], 0, 65535, &service->serviceID) &&
           parseInt(parts[2], 0, 1 << 20, &service->start) &&
           parseInt(parts[3], 0, 1 << 20, &service->count) &&
           parseInt(parts[4], 0, 1 << 20, &service->mod);
}

}  // namespace

void printCheckUsage(FILE* out) {
    fprintf(out,
            "usage: tavo_agentcheck [options] LIB.so\n"
            "Loads a tuner agent library through the engine, as a handset does, and checks\n"
            "every call it makes against the agent contract.\n"
            "\n"
            "  --freqs LIST          frequency points to scan, comma-separated (default 0-47)\n"
            "  --service F:ID:START:COUNT:MOD\n"
            "                        a service to start, with the values of the vendor's TS0\n"
            "                        record; once for session 0, again for session 1\n"
            "                        (default: the first two services the TS0 update reports)\n"
            "  --seconds N           seconds of frames to read (1-600, default 5)\n"
            "  --vendor siano|inno   library name the engine loads (default siano)\n"
            "  --property NAME=VALUE a system property for the library (repeatable)\n"
            "  --mbbms               also run the MBBMS requests\n"
            "  --json                print the result as JSON instead of a table\n"
            "  --help, --version\n"
            "\n"
            "Exit status: 0 the library passed, 1 it breached the contract, 2 the check could\n"
            "not run (library missing, no createAgent, engine init failed, bad options).\n");
}

ParseResult parseCheckOptions(int argc, char** argv, CheckOptions* options, std::string* error) {
    for (int i = 0; i < kFrequencyPoints; ++i)
        options->freqDots.push_back(i);
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        const std::string value = hasValue ? argv[i + 1] : "";
        if (arg == "--help" || arg == "-h")
            return ParseResult::HELP;
        if (arg == "--version")
            return ParseResult::VERSION;
        if (arg == "--mbbms") {
            options->mbbms = true;
        } else if (arg == "--json") {
            options->json = true;
        } else if (arg == "--freqs" && hasValue) {
            if (!parseFreqs(value, &options->freqDots)) {
                *error = "--freqs wants frequency points 0 to 47, comma-separated";
                return ParseResult::BAD;
            }
            ++i;
        } else if (arg == "--service" && hasValue) {
            ServiceChoice service;
            if (!parseService(value, &service) || options->services.size() >= kMaxServices) {
                *error = "--service wants FREQ:ID:START:COUNT:MOD, at most twice";
                return ParseResult::BAD;
            }
            options->services.push_back(service);
            ++i;
        } else if (arg == "--seconds" && hasValue) {
            if (!parseInt(value, 1, kMaxSeconds, &options->seconds)) {
                *error = "--seconds wants 1 to 600";
                return ParseResult::BAD;
            }
            ++i;
        } else if (arg == "--vendor" && hasValue) {
            if (value != "siano" && value != "inno") {
                *error = "--vendor wants siano or inno";
                return ParseResult::BAD;
            }
            options->inno = value == "inno";
            ++i;
        } else if (arg == "--property" && hasValue) {
            size_t equals = value.find('=');
            if (equals == std::string::npos || equals == 0 ||
                value.substr(0, equals).find('/') != std::string::npos) {
                *error = "--property wants NAME=VALUE";
                return ParseResult::BAD;
            }
            options->properties.emplace_back(value.substr(0, equals), value.substr(equals + 1));
            ++i;
        } else if (!arg.empty() && arg[0] != '-' && options->library.empty()) {
            options->library = arg;
        } else {
            *error = "unknown or incomplete option " + arg;
            return ParseResult::BAD;
        }
    }
    if (options->library.empty()) {
        *error = "no library given";
        return ParseResult::BAD;
    }
    return ParseResult::RUN;
}
