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

/// Maps zeroed memory, above `lastEnd` if the system honours the address hint. Compaction moves
/// nodes to lower addresses only, and Linux by itself maps at descending addresses, so that without
/// the hint the last page would be the lowest and no node could move. Any other address works as
/// well. `lastEnd` is NULL for the first page of a cache. NULL with errno set on failure.
void* mapAbove(void* lastEnd, uint64_t length) noexcept;

/// Advises huge pages (2 MiB) for memory that holds at least one whole, aligned huge page. A random
/// lookup then needs one TLB entry for 2 MiB instead of one for 4 KiB. `length` may include the
/// rest of the last system page: 29,127 slots are 8 bytes short of a huge page, yet their mapping
/// fills one.
void adviseHugePages(void* memory, uint64_t length) noexcept;

/// Moves the populated memory of a huge page's range, which begins on its boundary, into one huge
/// page. Takes Linux 6.1; where it cannot be done, nothing changes.
void collapseHugePage(uintptr_t range) noexcept;

}  // namespace kspool

#endif
