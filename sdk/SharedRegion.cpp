#include "SharedRegion.h"

#include <sys/mman.h>
#include <sys/stat.h>

#include <utility>

bool SharedRegion::map(UniqueFd fd) {
    reset();
    struct stat status;
    if (!fd.valid() || fstat(fd.get(), &status) != 0)
        return false;
    // A larger object would be mapped only in part and a smaller one would fault on access:
    // only the exact size is a region.
    if (status.st_size != static_cast<off_t>(CMMB_SHARED_BUFFER_SIZE))
        return false;
    void* address =
        mmap(nullptr, CMMB_SHARED_BUFFER_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    if (address == MAP_FAILED)
        return false;
    mMapping = UniqueMapping(Mapping{address, CMMB_SHARED_BUFFER_SIZE});
    mFd = std::move(fd);
    return true;
}

void SharedRegion::reset() {
    mMapping.reset();
    mFd.reset();
}
