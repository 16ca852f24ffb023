// The system's memory: where pages are mapped, and how it is asked for.
#include "kscache/kscache_memory.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

#include "common/diagnostics.h"

namespace kspool {
namespace {

constexpr uint64_t kHugePageSize = uint64_t{2} << 20;

/// The address span looked for when a cache maps its first page. Room for 900 million nodes; a
/// cache that outgrows it goes on above it or wherever the system wants.
constexpr uint64_t kAddressSpan = uint64_t{64} << 30;

/// Larger pages are populated as they are used. With a page for a 200th of the entries, that is
/// from 90 million entries on.
constexpr uint64_t kPopulatedAtOnce = uint64_t{32} << 20;

/// NULL with errno set when it fails.
void* mapMemory(void* hint, uint64_t length, int protection, int extraFlags) {
    void* memory = mmap(hint, length, protection, MAP_PRIVATE | MAP_ANONYMOUS | extraFlags, -1, 0);
    if (memory == MAP_FAILED) return nullptr;
    if (memory == nullptr) {
        munmap(memory, length);
        errno = ENOMEM;
    }
    return memory;
}

/// The first multiple of a power of two from an address on.
char* firstBoundary(void* address, uint64_t multiple) {
    const auto number = reinterpret_cast<uintptr_t>(address);
    return static_cast<char*>(address) + (roundUp(number, multiple) - number);
}

/// The base of a large free span of addresses: reserved, and given back at once.
void* freeSpan(uint64_t atLeast) {
    const ErrorsKept kept;
    for (uint64_t span = kAddressSpan; span >= atLeast; span /= 2) {
        if (void* base = mapMemory(nullptr, span, PROT_NONE, MAP_NORESERVE)) {
            munmap(base, span);
            return base;
        }
    }
    return nullptr;
}

/// Has a page's memory made at once, with huge pages where they fit, instead of at the first touch
/// of each piece: that is where most of the time of an add goes otherwise. Very large pages grow as
/// they are used.
void populate(void* memory, uint64_t length) {
    adviseHugePages(memory, roundUp(length, systemPageSize()));
    if (length > kPopulatedAtOnce) return;
    const ErrorsKept kept;
    madvise(memory, length, MADV_POPULATE_WRITE);
}

/// An address above all pages of a cache, on a boundary of the system, and of a huge page where one
/// fits: a page rarely ends on such a boundary.
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
    const ErrorsKept kept;
    madvise(begin, static_cast<size_t>(end - begin), MADV_HUGEPAGE);
}

}  // namespace kspool
