// Statuses and counters of lookups, shared by single calls and batches.
#ifndef KSCACHE_ENTRIES_H
#define KSCACHE_ENTRIES_H

#include "kscache/kscache_tree.h"

namespace kspool {

struct LookupCounts {
    uint64_t hits;
    uint64_t misses;
};

/// The presence test for the result of a search: raises the reference count, and counts the hit or
/// miss in `counts`, which is a cache or the counters of a batch.
template <typename Counts>
uint32_t countLookup(Counts& counts, KSCacheNode* node, uint64_t* valueOut) noexcept {
    if (node == nullptr) {
        ++counts.misses;
        return CR_STATUS_NOT_FOUND;
    }
    countReference(*node);
    if (valueOut != nullptr) *valueOut = node->value;
    ++counts.hits;
    return CR_STATUS_OK;
}

/// The fetch for the result of a search: counts nothing.
inline uint32_t copyValue(const KSCacheNode* node, uint64_t* valueOut) noexcept {
    if (node == nullptr) return CR_STATUS_NOT_FOUND;
    if (valueOut != nullptr) *valueOut = node->value;
    return CR_STATUS_OK;
}

}  // namespace kspool

#endif
