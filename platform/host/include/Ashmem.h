// Anonymous shared memory (cutils ashmem). On a host a region is a memfd of the given name
// and size; its descriptor can be passed over a Unix socket and mapped MAP_SHARED.
#ifndef TAVO_PLATFORM_ASHMEM_H
#define TAVO_PLATFORM_ASHMEM_H

#include <cstddef>

// Returns the region's descriptor, or -1.
int ashmem_create_region(const char* name, size_t size);
// Returns 0 for a protection mask made of PROT_READ and PROT_WRITE bits, -1 otherwise.
int ashmem_set_prot_region(int fd, int prot);

#endif  // TAVO_PLATFORM_ASHMEM_H
