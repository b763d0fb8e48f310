#include "Breaches.h"

namespace {

struct BreachText {
    const char* id;
    const char* rule;
};

const BreachText kTexts[kBreachCount] = {
    {"missing-export", "the library exports createAgent and destroyAgent, unmangled"},
    {"unpaired-bracket", "every onOutputAVStart is followed by its onOutputAVEnd, same thread"},
    {"nested-bracket", "frame brackets never nest or overlap, not even for two channels"},
    {"data-outside-bracket", "data callbacks come only inside their channel's frame bracket"},
    {"callback-inside-bracket", "only data callbacks come inside a frame bracket"},
    {"fragment-order", "NAL fragments come START, MIDDLE..., END, or COMPLETE, within a frame"},
    {"nal-start-code", "START and COMPLETE fragments begin with a 3- or 4-byte start code"},
    {"parameter-sets-missing", "SPS and PPS come in-band, as NAL units of the stream"},
    {"parameter-sets-rare", "an SPS comes at least every 5 seconds of video"},
    {"aac-adts-header", "AAC frames come raw, without an ADTS header of their own"},
    {"aac-too-long", "AAC frames are shorter than 2,041 bytes"},
    {"time-backwards", "each track's time (tsBase + tsRelative) never runs backwards"},
    {"time-jump", "each track's time advances by at most 3 seconds from item to item"},
    {"frame-too-large", "a multiplex frame carries at most 65,534 payload bytes per session"},
    {"frame-too-many-items", "a multiplex frame carries at most 256 NAL units and 256 AAC frames"},
    {"request-completed-twice", "a request ends with exactly one completion of its own kind"},
    {"request-never-completed", "every accepted request ends with its completion callback"},
    {"unknown-event", "agent event codes are 0 to 255 and not the engine's own"},
    {"data-thread-changed", "a channel's frames come from one thread"},
};

}  // namespace

const char* breachId(Breach breach) {
    return kTexts[static_cast<size_t>(breach)].id;
}

const char* breachRule(Breach breach) {
    return kTexts[static_cast<size_t>(breach)].rule;
}
