// One running service of the simulator: what it plays and how far it has got. Owned by
// the output thread's channel table; its position fields are advanced only by the output
// thread while it emits the channel's frames.
#ifndef TAVO_SIM_CHANNEL_H
#define TAVO_SIM_CHANNEL_H

#include <cstdint>

#include "ServiceContent.h"
#include "SimLineup.h"

struct SimChannel {
    int channelID = -1;
    const SimService* service = nullptr;
    const ServiceContent* content = nullptr;  // owned by the agent, outlives the channel
    uint32_t tsOrigin = 0;                    // broadcast clock (1/22500 s) at the first second
    uint32_t secondsDelivered = 0;            // seconds of content output so far
    uint16_t frameSequence = 0;               // multiplex frames output so far (wraps)
};

#endif  // TAVO_SIM_CHANNEL_H
