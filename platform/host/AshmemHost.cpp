// Host stand-in for cutils ashmem: a memfd of the given name and size.
#include <sys/mman.h>
#include <unistd.h>

#include "Ashmem.h"

int ashmem_create_region(const char* name, size_t size) {
    int fd = memfd_create(name, MFD_CLOEXEC);
    if (fd < 0)
        return -1;
    if (ftruncate(fd, static_cast<off_t>(size)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

int ashmem_set_prot_region(int fd, int prot) {
    if (fd < 0)
        return -1;
    if ((prot & ~(PROT_READ | PROT_WRITE)) != 0)
        return -1;
    return 0;
}
