#include "GuardedMappings.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <mutex>

#include "CmmbSharedBuffer.h"

extern "C" {
void* __real_mmap(void* address, size_t length, int prot, int flags, int fd, off_t offset);
int __real_munmap(void* address, size_t length);
void* __wrap_mmap(void* address, size_t length, int prot, int flags, int fd, off_t offset);
int __wrap_munmap(void* address, size_t length);
}

namespace {

const unsigned char kCanary = 0xA5;

struct GuardedMapping {
    unsigned char* reservation;  // guard page, region pages, guard page; null when unused
    size_t reservationLength;
    unsigned char* region;
};

// Plain data: the wrappers may run before any constructor.
GuardedMapping gMappings[8];
std::mutex gMappingsLock;  // guards gMappings

// Asked once: the per-frame check must cost no system call.
size_t pageSize() {
    static const size_t size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return size;
}

size_t regionPagesLength() {
    return (CMMB_SHARED_BUFFER_SIZE + pageSize() - 1) / pageSize() * pageSize();
}

// What a canary tail (less than one page) holds while it is intact.
const size_t kLargestPage = 65536;
const unsigned char* intactCanary() {
    static unsigned char canary[kLargestPage];
    static const bool filled = (memset(canary, kCanary, sizeof(canary)), true);
    (void)filled;
    return canary;
}

void* mapGuarded(int prot, int flags, int fd, off_t offset) {
    const size_t page = pageSize(), inner = regionPagesLength();
    void* reservation = __real_mmap(nullptr, inner + 2 * page, PROT_NONE,
                                    MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (reservation == MAP_FAILED)
        return MAP_FAILED;
    unsigned char* region = static_cast<unsigned char*>(reservation) + page;
    if (__real_mmap(region, CMMB_SHARED_BUFFER_SIZE, prot, flags | MAP_FIXED, fd, offset) ==
        MAP_FAILED) {
        __real_munmap(reservation, inner + 2 * page);
        return MAP_FAILED;
    }
    std::lock_guard<std::mutex> hold(gMappingsLock);
    for (GuardedMapping& m : gMappings) {
        if (m.reservation == nullptr) {
            m = GuardedMapping{static_cast<unsigned char*>(reservation), inner + 2 * page, region};
            if (prot & PROT_WRITE)
                memset(region + CMMB_SHARED_BUFFER_SIZE, kCanary, inner - CMMB_SHARED_BUFFER_SIZE);
            return region;
        }
    }
    return region;  // table full: mapped with guard pages, but never released or checked
}

}  // namespace

void* __wrap_mmap(void* address, size_t length, int prot, int flags, int fd, off_t offset) {
    if (address == nullptr && length == CMMB_SHARED_BUFFER_SIZE && (flags & MAP_SHARED) && fd >= 0)
        return mapGuarded(prot, flags, fd, offset);
    return __real_mmap(address, length, prot, flags, fd, offset);
}

int __wrap_munmap(void* address, size_t length) {
    {
        std::lock_guard<std::mutex> hold(gMappingsLock);
        for (GuardedMapping& m : gMappings) {
            if (m.reservation != nullptr && m.region == address) {
                int result = __real_munmap(m.reservation, m.reservationLength);
                m = GuardedMapping{};
                return result;
            }
        }
    }
    return __real_munmap(address, length);
}

int guardedMappingCount() {
    std::lock_guard<std::mutex> hold(gMappingsLock);
    int count = 0;
    for (const GuardedMapping& m : gMappings)
        count += m.reservation != nullptr;
    return count;
}

std::string guardedMappingsIntact() {
    std::lock_guard<std::mutex> hold(gMappingsLock);
    for (const GuardedMapping& m : gMappings) {
        if (m.reservation == nullptr)
            continue;
        const unsigned char* tail = m.region + CMMB_SHARED_BUFFER_SIZE;
        if (memcmp(tail, intactCanary(), regionPagesLength() - CMMB_SHARED_BUFFER_SIZE) == 0)
            continue;
        for (size_t i = CMMB_SHARED_BUFFER_SIZE; i < regionPagesLength(); ++i) {
            if (m.region[i] != kCanary)
                return "byte " + std::to_string(i) + " after the start of a shared buffer (" +
                       std::to_string(i - CMMB_SHARED_BUFFER_SIZE) +
                       " past its end) was overwritten";
        }
    }
    return "";
}
