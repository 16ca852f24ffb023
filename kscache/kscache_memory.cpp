#include "kscache/kscache_memory.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

#include "common/diagnostics.h"

namespace kspool {
namespace {

constexpr uint64_t kHugePageSize = uint64_t{2} << 20;

/// The free address span that is searched for when a cache maps its first page. It has room for 900
/// million nodes; a cache that outgrows it goes on above it, or wherever the system maps.
constexpr uint64_t kAddressSpan = uint64_t{64} << 30;

/// Larger pages are populated by first touch, so that a careless area size does not take gigabytes
/// at once. With pages of a 200th of the entries, that is from 90 million entries on.
constexpr uint64_t kPopulatedAtOnce = uint64_t{32} << 20;

/// NULL with errno set when it fails, also for a mapping at address 0, which callers could not tell
/// from a failure.
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

/// The base of a large free span of addresses, or NULL. It is reserved and given back at once: this
/// is only a place where pages can ascend for long, and a lasting reservation would count against
/// the process's address-space limit.
void* freeSpan(uint64_t atLeast) {
    const ErrnoAndSlotGuard kept;
    for (uint64_t span = kAddressSpan; span >= atLeast; span /= 2) {
        if (void* base = mapMemory(nullptr, span, PROT_NONE, MAP_NORESERVE)) {
            munmap(base, span);
            return base;
        }
    }
    return nullptr;
}

/// Populates a page at once, with huge pages where they fit. Otherwise the first touch of each
/// 4 KiB is a page fault, and these faults take most of the time of an add.
void populate(void* memory, uint64_t length) {
    adviseHugePages(memory, roundUp(length, systemPageSize()));
    if (length > kPopulatedAtOnce) return;
    const ErrnoAndSlotGuard kept;
    madvise(memory, length, MADV_POPULATE_WRITE);
}

/// An address above all pages of a cache, rounded up to a system page, or to a huge page for pages
/// as large: pages rarely end on such a boundary. NULL (no hint) when no span is free.
void* hintAbove(void* lastEnd, uint64_t length) {
    void* above = lastEnd != nullptr ? lastEnd : freeSpan(length);
    return firstBoundary(above, length >= kHugePageSize ? kHugePageSize : systemPageSize());
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

}  // namespace kspool
