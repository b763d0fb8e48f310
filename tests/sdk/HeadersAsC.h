/* Entry points of HeadersAsC.c, a C translation unit. */
#ifndef TAVO_TESTS_SDK_HEADERS_AS_C_H
#define TAVO_TESTS_SDK_HEADERS_AS_C_H

#include <stddef.h>

/* The sizes, offsets and codes compared, in order: an initialiser that the C and the C++
 * side each evaluate with their own compiler. */
#define SDK_LAYOUT_ENTRIES                                                                     \
    {                                                                                          \
        sizeof(CmmbSharedSemaphore), sizeof(CmmbNalRecord), sizeof(CmmbAacRecord),             \
            sizeof(CmmbSharedBuffer), offsetof(CmmbSharedBuffer, nalCount),                    \
            offsetof(CmmbSharedBuffer, dataLength), offsetof(CmmbSharedBuffer, nal),           \
            offsetof(CmmbSharedBuffer, aac), offsetof(CmmbSharedBuffer, data),                 \
            sizeof(PlayEngineCommandMessage), offsetof(PlayEngineCommandMessage, fdStatus),    \
            offsetof(PlayEngineCommandMessage, session), sizeof(PlayEngineIndicationMessage),  \
            PLAYENGINE_FD_CONTROL_SPACE, CMD_FLUSH, IMAGE_CAPTURE_FAIL, sizeof(tavo_pe_frame), \
            sizeof(tavo_pe_item), sizeof(tavo_pe_command)                                      \
    }

#ifdef __cplusplus
extern "C" {
#endif

/* Sizes, offsets and codes as C sees them, in a fixed order; returns how many there are. */
size_t sdk_c_layout(size_t* out, size_t capacity);
/* Posts and waits on a semaphore through the SDK's C linkage; the value left (0). */
int sdk_c_semaphore_round_trip(void);

#ifdef __cplusplus
}
#endif

#endif
