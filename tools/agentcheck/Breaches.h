// The breaches of the agent contract that tavo_agentcheck reports, with their stable ids.
#ifndef TAVO_TOOLS_AGENTCHECK_BREACHES_H
#define TAVO_TOOLS_AGENTCHECK_BREACHES_H

#include <cstddef>

enum class Breach {
    MISSING_EXPORT,
    UNPAIRED_BRACKET,
    NESTED_BRACKET,
    DATA_OUTSIDE_BRACKET,
    CALLBACK_INSIDE_BRACKET,
    FRAGMENT_ORDER,
    NAL_START_CODE,
    PARAMETER_SETS_MISSING,
    PARAMETER_SETS_RARE,
    AAC_ADTS_HEADER,
    AAC_TOO_LONG,
    TIME_BACKWARDS,
    TIME_JUMP,
    FRAME_TOO_LARGE,
    FRAME_TOO_MANY_ITEMS,
    REQUEST_COMPLETED_TWICE,
    REQUEST_NEVER_COMPLETED,
    UNKNOWN_EVENT,
    DATA_THREAD_CHANGED,
    COUNT
};

constexpr size_t kBreachCount = static_cast<size_t>(Breach::COUNT);

// The id used in the table and the JSON, e.g. "nested-bracket".
const char* breachId(Breach breach);
// One line saying what the contract asks for.
const char* breachRule(Breach breach);

#endif  // TAVO_TOOLS_AGENTCHECK_BREACHES_H
