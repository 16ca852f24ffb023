// Looking ahead: the memory that searches are about to touch is asked for all at once.
//
// A search is a chain of a few reads, each of which waits for memory and tells where the next one
// goes. The chains of many keys do not depend on each other, so they are followed side by side: one
// step of each in turn, with the line that its next step needs on the way meanwhile. Only the
// processor's caches change; what a search finds is found by the search itself, afterwards.
#ifndef KSCACHE_LANES_H
#define KSCACHE_LANES_H

#include "kscache/kscache_int.h"

namespace kspool {

/// Keys that are followed side by side: more than the processor has line buffers for, and few
/// enough that all their lines stay in its nearest cache.
inline constexpr size_t kLanes = 64;

/// Brings in what findLink() will read for up to kLanes keys.
void prefetchPaths(const KSCache* cache, const KSCacheKey* keys, size_t count) noexcept;

}  // namespace kspool

#endif
