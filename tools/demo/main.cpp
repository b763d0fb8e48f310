// tavo_demo: an application of the engine that plays a simulated broadcast end to end.
// See DemoOptions::usage() and docs/demo.md.
#include <cstdio>

#include "DemoOptions.h"
#include "DemoRun.h"
#include "TavoMBBMSVersion.h"

int main(int argc, char** argv) {
    DemoOptions options;
    std::string error;
    if (!options.parse(argc, argv, &error)) {
        fprintf(stderr, "tavo_demo: %s\n\n%s", error.c_str(), DemoOptions::usage());
        return 2;
    }
    if (options.help) {
        fputs(DemoOptions::usage(), stdout);
        return 0;
    }
    if (options.version) {
        // The package this program came with, and the engine library it loaded.
        printf("tavo_demo %s (libtavombbms %s)\n", TAVOMBBMS_VERSION_STRING, tavo_mbbms_version());
        return 0;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    DemoRun run(options);
    return run.run();
}
