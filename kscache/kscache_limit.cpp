// The memory limit: which entries to drop, by their reference counts. A histogram of the counts
// gives the threshold in one pass, without sorting: entries with equal counts stay or go together.
//
// Thread rule: one thread at a time per cache (kscache_int.h), and no walk under way, since a
// compaction follows.
// Invariants:
//  1. Only slots with refCount >= 1 are deleted: a free slot still holds the key of its last entry,
//     which may live in another slot.
//  2. Entries are deleted by key, not by address, so the structure is changed by KSCacheDelete()
//     alone.
#include <algorithm>
#include <array>

#include "kscache/kscache_int.h"
#include "kscache/kscache_lanes.h"

using namespace kspool;

namespace {

constexpr uint64_t kMebibyte = uint64_t{1} << 20;

/// All entries with a reference count up to `highest` are dropped.
struct Threshold {
    uint64_t highest;
    uint64_t bytesKept;  ///< by the entries above it
};

/// The lowest threshold above which the entries fit into the budget; 0 when all fit. Counts add up
/// from the most referenced downwards, so that the least referenced entries go.
Threshold findThreshold(const KSCache* cache, uint64_t budget) {
    std::array<uint32_t, kMaximumRefCount + 1> slots{};  // by reference count
    for (KSCachePage* page = cache->firstPage; page != nullptr; page = page->next) {
        for (const KSCacheNode& slot : slotsOf(page))
            ++slots[std::min(slot.refCount, kMaximumRefCount)];
    }
    uint64_t bytes = 0;
    for (uint64_t count = kMaximumRefCount; count > 0; --count) {
        const uint64_t more = slots[count] * kNodeSize;
        if (bytes + more > budget) return {count, bytes};
        bytes += more;
    }
    return {0, bytes};
}

/// Entries to be deleted, gathered into batches whose trees are prefetched before the deletes.
class Victims {
  public:
    explicit Victims(KSCache* cache) : cache_(cache) {}

    void add(const KSCacheNode& node) {
        keys_[count_++] = {node.fingerprint, node.type};
        if (count_ == keys_.size()) drop();
    }
    void drop() {
        prefetchPaths(cache_, keys_.data(), count_);
        for (size_t i = 0; i < count_; ++i)
            KSCacheDelete(cache_, keys_[i].fingerprint, keys_[i].type);
        count_ = 0;
    }

  private:
    KSCache* cache_;
    std::array<KSCacheKey, kPathsAtOnce> keys_;
    size_t count_ = 0;
};

/// The keys are read where they lie: a delete leaves the fingerprint in the slot it frees.
void dropUpTo(KSCache* cache, uint64_t highest) {
    Victims victims(cache);
    for (KSCachePage* page = cache->firstPage; page != nullptr; page = page->next) {
        for (const KSCacheNode& slot : slotsOf(page)) {
            if (slot.refCount != 0 && slot.refCount <= highest) victims.add(slot);
        }
    }
    victims.drop();
}

}  // namespace

uint32_t KSCacheCheck(KSCache* cache, uint32_t limit) noexcept {
    if (const uint32_t bad = checkIdle(cache)) return bad;
    if (limit == 0) {
        KSCacheReclaim(cache);
        return CR_STATUS_OK;
    }
    const uint64_t budget = limit * kMebibyte;
    if (cache->cacheSize <= budget) return CR_STATUS_OK;
    KS_TRACE("CacheCheck: memory usage before cache check: %u", static_cast<uint32_t>(OSGetRSS()));
    KS_TRACE("CacheCheck: maximum memory limit exceeded, pruning cache");
    const Threshold threshold = findThreshold(cache, budget);
    KS_TRACE(
        "KSCacheCheck: highest reference count %u. Cache will use approx %.2lf MB after reclaim",
        static_cast<uint32_t>(threshold.highest),
        static_cast<double>(threshold.bytesKept) / static_cast<double>(kMebibyte));
    KS_TRACE("KSCacheCheck: before: %lu nodes on free list",
             static_cast<unsigned long>(cache->freeListCount));
    dropUpTo(cache, threshold.highest);
    KSCacheReclaim(cache);
    return CR_STATUS_OK;
}

uint64_t KSCachePrune(KSCache* cache) noexcept {
    if (checkIdle(cache) != CR_STATUS_OK) return 0;
    KS_TRACE("KSCachePrune: before: %lu nodes on free list",
             static_cast<unsigned long>(cache->freeListCount));
    // A delete frees its slot at once, so no slot is used without an entry: there is nothing to
    // prune, and only the two traces are left of it.
    KS_TRACE("KSCachePrune: after: %lu nodes on free list",
             static_cast<unsigned long>(cache->freeListCount));
    return cache->freeListCount;
}
