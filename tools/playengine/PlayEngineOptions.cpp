#include "PlayEngineOptions.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "TavoMBBMSVersion.h"
#include "TavoPlayEngine.h"

namespace {

const char kUsage[] =
    "Usage: %s [options]\n"
    "\n"
    "Reference play engine: connects to the TV engine's command socket, maps the shared A/V\n"
    "buffers of sessions 0 and 1, writes each session's video as an H.264 Annex B stream and\n"
    "its audio as AAC in ADTS, and answers snapshot requests with PNG images.\n"
    "\n"
    "Options:\n"
    "  --engine-socket PATH  the engine's socket (default: /data/app/cmmb.socket, under\n"
    "                        $TAVO_ANDROID_ROOT when that is set)\n"
    "  --socket PATH         the path this play engine binds before connecting (default:\n"
    "                        $TMPDIR/tavo-playengine-<pid>.socket)\n"
    "  --out-dir DIR         write sessionN.h264 and sessionN.aac into DIR\n"
    "  --video0 PATH, --audio0 PATH, --video1 PATH, --audio1 PATH\n"
    "                        one stream's output; \"-\" is standard output, a FIFO works too\n"
    "                        (e.g. mkfifo v0; ffplay -f h264 v0 & ... --video0 v0)\n"
    "  --frames N            stop after N multiplex frames, all sessions together\n"
    "  --no-reconnect        stop when the engine closes the connection instead of waiting\n"
    "                        for it to come back\n"
    "  --verbose             report every command and indication\n"
    "  --help                show this text\n"
    "  --version             show the package version\n"
    "\n"
    "Stops on SIGINT or SIGTERM and prints per session the multiplex frames, NAL units, AAC\n"
    "frames and empty frames it read.\n";

bool takesValue(const char* option) {
    return strcmp(option, "--engine-socket") == 0 || strcmp(option, "--socket") == 0 ||
           strcmp(option, "--out-dir") == 0 || strcmp(option, "--video0") == 0 ||
           strcmp(option, "--audio0") == 0 || strcmp(option, "--video1") == 0 ||
           strcmp(option, "--audio1") == 0 || strcmp(option, "--frames") == 0;
}

}  // namespace

int parsePlayEngineOptions(int argc, char** argv, PlayEngineOptions* options) {
    std::string outDir;
    for (int i = 1; i < argc; ++i) {
        const char* option = argv[i];
        if (strcmp(option, "--help") == 0 || strcmp(option, "-h") == 0) {
            printf(kUsage, argv[0]);
            return 1;
        }
        if (strcmp(option, "--version") == 0) {
            printf("tavo_playengine %s\n", TAVOMBBMS_VERSION_STRING);
            return 1;
        }
        if (strcmp(option, "--no-reconnect") == 0) {
            options->reconnect = false;
            continue;
        }
        if (strcmp(option, "--verbose") == 0) {
            options->verbose = true;
            continue;
        }
        if (!takesValue(option)) {
            fprintf(stderr, "%s: unknown option %s (see --help)\n", argv[0], option);
            return 2;
        }
        if (i + 1 >= argc) {
            fprintf(stderr, "%s: %s needs a value\n", argv[0], option);
            return 2;
        }
        std::string value = argv[++i];
        if (strcmp(option, "--engine-socket") == 0)
            options->engineSocket = value;
        if (strcmp(option, "--socket") == 0)
            options->ownSocket = value;
        if (strcmp(option, "--out-dir") == 0)
            outDir = value;
        if (strcmp(option, "--video0") == 0)
            options->video[0] = value;
        if (strcmp(option, "--audio0") == 0)
            options->audio[0] = value;
        if (strcmp(option, "--video1") == 0)
            options->video[1] = value;
        if (strcmp(option, "--audio1") == 0)
            options->audio[1] = value;
        if (strcmp(option, "--frames") == 0) {
            char* end = nullptr;
            options->frames = strtol(value.c_str(), &end, 10);
            if (end == value.c_str() || *end != '\0' || options->frames <= 0) {
                fprintf(stderr, "%s: --frames needs a positive number\n", argv[0]);
                return 2;
            }
        }
    }

    if (options->engineSocket.empty()) {
        char path[1024];
        if (tavo_pe_default_engine_path(path, sizeof(path)) != TAVO_PE_OK) {
            fprintf(stderr, "%s: the engine's socket path is too long\n", argv[0]);
            return 2;
        }
        options->engineSocket = path;
    }
    if (options->ownSocket.empty()) {
        const char* tmp = getenv("TMPDIR");
        options->ownSocket = std::string(tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp") +
                             "/tavo-playengine-" + std::to_string(getpid()) + ".socket";
    }
    for (int session = 0; session < 2; ++session) {
        std::string prefix = outDir + "/session" + std::to_string(session);
        if (!outDir.empty() && options->video[session].empty())
            options->video[session] = prefix + ".h264";
        if (!outDir.empty() && options->audio[session].empty())
            options->audio[session] = prefix + ".aac";
    }
    return 0;
}
