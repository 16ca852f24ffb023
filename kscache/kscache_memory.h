// The system's memory: where pages are mapped, and how it is asked for.
#ifndef KSCACHE_MEMORY_H
#define KSCACHE_MEMORY_H

#include <cstdint>

namespace kspool {

/// The system's memory page size in bytes.
uint64_t systemPageSize() noexcept;

/// `multiple` is a power of two.
constexpr uint64_t roundUp(uint64_t value, uint64_t multiple) noexcept {
    return (value + multiple - 1) & ~(multiple - 1);
}

/// Maps zeroed memory, above `lastEnd` where the system lets it: compaction moves nodes to lower
/// addresses only, and the system by itself hands out descending ones. The address is only a hint;
/// any works. `lastEnd` is NULL for the first page of a cache. NULL with errno set on failure.
void* mapAbove(void* lastEnd, uint64_t length) noexcept;

/// Advises huge pages for memory that is large enough to hold one.
void adviseHugePages(void* memory, uint64_t length) noexcept;

}  // namespace kspool

#endif
