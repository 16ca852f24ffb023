#include "kscache/kscache_memory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdlib>

#include "common/diagnostics.h"
#include "common/owned.h"

#ifndef MADV_COLLAPSE  // newer than some C libraries
#define MADV_COLLAPSE 25
#endif

namespace kspool {
namespace {

/// The size of the free address span that is searched for when a cache maps its first page: room
/// for 900 million nodes. A cache that outgrows it continues above, or wherever the system maps.
constexpr uint64_t kAddressSpan = uint64_t{64} << 30;

/// mmap() of anonymous memory; NULL with errno set on failure. A mapping at address 0 counts as a
/// failure, since callers could not tell them apart.
void* mapMemory(void* hint, uint64_t length, int protection, int extraFlags) {
    void* memory = mmap(hint, length, protection, MAP_PRIVATE | MAP_ANONYMOUS | extraFlags, -1, 0);
    if (memory == MAP_FAILED) return nullptr;
    if (memory == nullptr) {
        munmap(memory, length);
        errno = ENOMEM;
    }
    return memory;
}

/// The address rounded up to a multiple of a power of two.
char* firstBoundary(void* address, uint64_t multiple) {
    const auto number = reinterpret_cast<uintptr_t>(address);
    return static_cast<char*>(address) + (roundUp(number, multiple) - number);
}

/// The size of the process's address space in use; UINT64_MAX when it cannot be read.
uint64_t addressesUsed() {
    char text[64] = "";
    const Descriptor file(open("/proc/self/statm", O_RDONLY | O_CLOEXEC, 0));
    if (file.get() < 0 || read(file.get(), text, sizeof text - 1) <= 0) return UINT64_MAX;
    return strtoull(text, nullptr, 10) * systemPageSize();
}

/// The base of a free address span, or NULL. The span is reserved and unmapped at once: only its
/// address matters, as a place with room for ascending pages, and a lasting reservation would count
/// against the process's address-space limit.
void* freeSpanOf(uint64_t length) {
    void* base = mapMemory(nullptr, length, PROT_NONE, MAP_NORESERVE);
    if (base != nullptr) munmap(base, length);
    return base;
}

/// A large free span, halved until one is found. Under an address-space limit, only a sixteenth of
/// what is left is tried: a larger reservation could make mappings of other threads fail.
void* freeSpan(uint64_t atLeast) {
    const ErrnoAndSlotGuard kept;
    rlimit limit{};
    if (getrlimit(RLIMIT_AS, &limit) != 0) return nullptr;
    if (limit.rlim_cur != RLIM_INFINITY) {
        const uint64_t used = addressesUsed();
        const uint64_t left = limit.rlim_cur > used ? limit.rlim_cur - used : 0;
        const uint64_t span = std::min(left / 16, kAddressSpan);
        return span >= atLeast ? freeSpanOf(span) : nullptr;
    }
    for (uint64_t span = kAddressSpan; span >= atLeast; span /= 2)
        if (void* base = freeSpanOf(span)) return base;
    return nullptr;
}

/// Populates a page at once, with huge pages where they fit. Otherwise the first touch of each
/// 4 KiB would be a page fault, and these faults would take most of the time of an add.
void populate(void* memory, uint64_t length) {
    adviseHugePages(memory, roundUp(length, systemPageSize()));
    if (length > kPopulatedAtOnce) return;
    const ErrnoAndSlotGuard kept;
    madvise(memory, length, MADV_POPULATE_WRITE);
}

/// An address above all pages of a cache, rounded up to a system page boundary, or for pages of
/// 2 MiB and more to a huge page boundary. NULL (no hint) when no span is free.
void* hintAbove(void* lastEnd, uint64_t length) {
    void* above = lastEnd != nullptr ? lastEnd : freeSpan(length);
    const bool huge = roundUp(length, systemPageSize()) >= kHugePageSize;
    return firstBoundary(above, huge ? kHugePageSize : systemPageSize());
}

}  // namespace

void* mapAbove(void* lastEnd, uint64_t length) noexcept {
    void* memory = mapMemory(hintAbove(lastEnd, length), length, PROT_READ | PROT_WRITE, 0);
    if (memory != nullptr) populate(memory, length);
    return memory;
}

uint64_t systemPageSize() noexcept {
    return static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

void adviseHugePages(void* memory, uint64_t length) noexcept {
    const char* end = static_cast<char*>(memory) + length;
    if (firstBoundary(memory, kHugePageSize) + kHugePageSize > end) return;
    char* begin = firstBoundary(memory, systemPageSize());
    const ErrnoAndSlotGuard kept;
    madvise(begin, static_cast<size_t>(end - begin), MADV_HUGEPAGE);
}

void collapseHugePage(uintptr_t range) noexcept {
    const ErrnoAndSlotGuard kept;
    madvise(std::bit_cast<void*>(range), kHugePageSize, MADV_COLLAPSE);
}

}  // namespace kspool
