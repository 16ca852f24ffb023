// Memory from the system: at which address pages are mapped, and with which advice.
//
// No state; any thread. Both the address and the advice are hints: a failed one costs speed, or
// keeps compaction from moving entries, but is not an error, and leaves errno and the status slot
// alone.
#ifndef KSCACHE_MEMORY_H
#define KSCACHE_MEMORY_H

#include <cstdint>

namespace kspool {

/// The system's memory page size in bytes.
uint64_t systemPageSize() noexcept;

inline constexpr uint64_t kHugePageSize = uint64_t{2} << 20;

/// Pages up to this size get all their memory when they are mapped. Larger ones are populated by
/// first touch, so that a careless area size does not take gigabytes at once.
inline constexpr uint64_t kPopulatedAtOnce = 16 * kHugePageSize;

/// `multiple` is a power of two.
constexpr uint64_t roundUp(uint64_t value, uint64_t multiple) noexcept {
    return (value + multiple - 1) & ~(multiple - 1);
}

/// Maps zeroed memory, above `lastEnd` (NULL: the first page of a cache) if the system honours the
/// address hint. Compaction moves nodes to lower addresses only, and Linux by default maps at
/// descending addresses: without the hint the last page would be the lowest and no node could move.
/// Everything else works at any address. NULL with errno set on failure.
void* mapAbove(void* lastEnd, uint64_t length) noexcept;

/// Advises huge pages (2 MiB) for memory that contains at least one aligned huge page. Random
/// lookups then need one TLB entry per 2 MiB instead of one per 4 KiB. `length` may include the
/// rest of the last system page: 29,127 slots are 8 bytes short of a huge page, but their mapping
/// fills it.
void adviseHugePages(void* memory, uint64_t length) noexcept;

/// Collapses the populated small pages of an aligned 2 MiB range into one huge page. Needs Linux
/// 6.1; a failure changes nothing.
void collapseHugePage(uintptr_t range) noexcept;

}  // namespace kspool

#endif
