// Anonymous shared memory on the handset: libcutils' own ashmem header.
#ifndef TAVO_PLATFORM_ASHMEM_H
#define TAVO_PLATFORM_ASHMEM_H

#include <cutils/ashmem.h>

#endif  // TAVO_PLATFORM_ASHMEM_H
