// Host stand-in for cutils ashmem: a memfd of the given name and size.
//
// The region is sealed at its size: every process that receives the descriptor maps it
// read-write, and one that shrank it would make the engine's next access to the lost pages
// fault (SIGBUS). With the seals, ftruncate by anyone fails, and the seals themselves can no
// longer be changed.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "Ashmem.h"
#include "UniqueHandle.h"

int ashmem_create_region(const char* name, size_t size) {
    UniqueFd fd(memfd_create(name, MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!fd.valid() || ftruncate(fd.get(), static_cast<off_t>(size)) != 0 ||
        fcntl(fd.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0) {
        return -1;
    }
    return fd.release();
}

int ashmem_set_prot_region(int fd, int prot) {
    if (fd < 0)
        return -1;
    if ((prot & ~(PROT_READ | PROT_WRITE)) != 0)
        return -1;
    return 0;
}
