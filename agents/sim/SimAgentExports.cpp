// The two functions the engine looks up in an agent library; nothing else is exported.
#include "SimAgent.h"

extern "C" {

__attribute__((visibility("default"))) MBBMSAgent* createAgent() {
    return new SimAgent();
}

__attribute__((visibility("default"))) void destroyAgent(MBBMSAgent* agent) {
    delete agent;
}

}  // extern "C"
