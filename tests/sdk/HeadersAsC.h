/* Entry points of HeadersAsC.c, a C translation unit. */
#ifndef TAVO_TESTS_SDK_HEADERS_AS_C_H
#define TAVO_TESTS_SDK_HEADERS_AS_C_H

#include <stddef.h>

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
