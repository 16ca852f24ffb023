// Batches: the single calls in a loop, in the same order and with the same effects,
// software-pipelined (kscache_lanes.h) so that the cache misses of many keys overlap.
#include <algorithm>

#include "kscache/kscache_entries.h"
#include "kscache/kscache_int.h"
#include "kscache/kscache_lanes.h"

using namespace kspool;

namespace {

bool holdsNull(const KSCacheKey* keys, size_t count) {
    return std::any_of(keys, keys + count,
                       [](const KSCacheKey& key) { return key.fingerprint == nullptr; });
}

uint32_t checkBatch(const KSCache* cache, const KSCacheKey* keys, size_t count) {
    if (const uint32_t bad = checkHandle(cache)) return bad;
    if (count == 0) return CR_STATUS_OK;
    return keys != nullptr && !holdsNull(keys, count) ? CR_STATUS_OK : CR_STATUS_INVALID_PARAMETER;
}

uint64_t* valueAt(uint64_t* values, size_t i) {
    return values != nullptr ? values + i : nullptr;
}

void tell(uint32_t* statuses, size_t i, uint32_t status) {
    if (statuses != nullptr) statuses[i] = status;
}

/// A batch of one key is a single call, which is faster than lanes for one key. A refused single
/// call refuses the batch with the same status.
bool isSingle(const KSCacheKey* keys, size_t count) {
    return count == 1 && keys != nullptr;
}

uint32_t singleDone(uint32_t status, uint32_t* statuses) {
    if (status != CR_STATUS_OK && status != CR_STATUS_NOT_FOUND) return status;
    tell(statuses, 0, status);
    return CR_STATUS_OK;
}

/// Calls `answer` for each key in turn with the node of the key, or NULL. Lookups do not change
/// trees, so each search goes on from the node at which its lane arrived. Not inlined, so that
/// small batches do not pay for the stack frame of the lanes.
template <typename Answer>
[[gnu::noinline]] void lookUp(const KSCache* cache, const KSCacheKey* keys, size_t count,
                              uint32_t* statuses, Answer answer) {
    Lanes<Purpose::kLookup>(cache, keys, count).follow([&](size_t i, KSCacheNode* node) {
        const Key key = makeKey(keys[i].fingerprint, keys[i].type);
        tell(statuses, i, answer(findBelow(node, key), i));
    });
}

}  // namespace

uint32_t KSCacheExistsBatch(KSCache* cache, const KSCacheKey* keys, size_t count, uint64_t* values,
                            uint32_t* statuses) noexcept {
    if (isSingle(keys, count))
        return singleDone(KSCacheExists(cache, keys->fingerprint, keys->type, values), statuses);
    if (const uint32_t bad = checkBatch(cache, keys, count)) return bad;
    // Local counters: `values` and `statuses` may alias the counters in the cache, so the compiler
    // would have to store those after each key.
    LookupCounts counts{};
    lookUp(cache, keys, count, statuses, [=, &counts](KSCacheNode* node, size_t i) {
        return countLookup(counts, node, valueAt(values, i));
    });
    cache->hits += counts.hits;
    cache->misses += counts.misses;
    return CR_STATUS_OK;
}

uint32_t KSCacheFetchBatch(const KSCache* cache, const KSCacheKey* keys, size_t count,
                           uint64_t* values, uint32_t* statuses) noexcept {
    if (isSingle(keys, count))
        return singleDone(KSCacheFetch(cache, keys->fingerprint, keys->type, values), statuses);
    if (const uint32_t bad = checkBatch(cache, keys, count)) return bad;
    lookUp(cache, keys, count, statuses,
           [=](const KSCacheNode* node, size_t i) { return copyValue(node, valueAt(values, i)); });
    return CR_STATUS_OK;
}

uint32_t KSCacheAddBatch(KSCache* cache, const KSCacheKey* keys, const uint64_t* values,
                         void* const* addArgs, size_t count, uint32_t* statuses) noexcept {
    if (const uint32_t bad = checkBatch(cache, keys, count)) return bad;
    if (count != 0 && values == nullptr) return CR_STATUS_INVALID_PARAMETER;
    uint32_t failure = CR_STATUS_OK;
    // Lanes do not survive an add: an add changes trees, and its callback may even compact the
    // cache and so release pages that a lane reads. Therefore the paths of many keys are prefetched
    // first, and each add then searches by itself.
    for (size_t first = 0; first < count; first += kPathsAtOnce) {
        const size_t end = std::min(first + kPathsAtOnce, count);
        if (count > 1) prefetchPaths(cache, keys + first, end - first);
        for (size_t i = first; i < end; ++i) {
            const uint32_t status = KSCacheAdd(cache, keys[i].fingerprint, keys[i].type, values[i],
                                               addArgs != nullptr ? addArgs[i] : nullptr);
            const bool done = status == CR_STATUS_OK || status == CR_STATUS_EXISTS;
            if (!done && failure == CR_STATUS_OK) failure = status;
            if (statuses != nullptr) statuses[i] = status;
        }
    }
    return failure;
}
