// The memory limit: which entries to drop, by their reference counts. A histogram of the counts
// gives the threshold in one pass, without sorting: entries with equal counts stay or go together.
//
// Thread rule: one thread at a time per cache (kscache_int.h), and no walk under way, since a
// compaction follows.
// Invariants:
//  1. Only slots with refCount >= 1 are dropped: a free slot still holds the key of its last entry,
//     which may live in another slot.
//  2. A check that is going to compact leaves the free list in the order of pages and slots, so
//     that compaction need not pass over all pages to sort it. Any other check pushes the dropped
//     slots on the free list as deletes do.
#include <algorithm>
#include <array>
#include <span>

#include "kscache/kscache_int.h"
#include "kscache/kscache_lanes.h"

using namespace kspool;

namespace {

constexpr uint64_t kMebibyte = uint64_t{1} << 20;

/// Entries with a reference count up to `highest` are dropped.
struct Threshold {
    uint64_t highest;
    uint64_t bytesKept;  ///< by the entries above it
    uint64_t victims;    ///< entries up to it
};

/// The lowest threshold above which the entries fit into the budget; 0 when all fit. Counts add up
/// from the most referenced downwards, so that the least referenced entries go.
Threshold findThreshold(const KSCache* cache, uint64_t budget) {
    std::array<uint32_t, kMaximumRefCount + 1> slots{};  // by reference count
    for (KSCachePage* page = cache->firstPage; page != nullptr; page = page->next) {
        for (const KSCacheNode& slot : slotsOf(page))
            ++slots[std::min(slot.refCount, kMaximumRefCount)];
    }
    uint64_t kept = 0;
    uint64_t count = kMaximumRefCount;
    for (; count > 0 && (kept + slots[count]) * kNodeSize <= budget; --count)
        kept += slots[count];
    return {count, kept * kNodeSize, cache->cachedItems - kept};
}

/// The pass over all slots that drops entries. Slots are gathered into batches, so that the trees
/// of a batch are prefetched before its first entry is dropped.
class Dropping {
  public:
    /// `list` is NULL, or links the free slots in order.
    Dropping(KSCache* cache, uint64_t highest, FreeListBuilder* list)
        : cache_(cache), highest_(highest), list_(list) {}

    void run() {
        for (KSCachePage* page = cache_->firstPage; page != nullptr; page = page->next) {
            auto slots = slotsOf(page);
            if (page == cache_->lastPage)
                slots = slots.first(slots.size() - cache_->nodesAvailable);
            for (KSCacheNode& slot : slots) {
                if (concerns(slot)) add(slot);
            }
        }
        handleBatch();
    }

  private:
    bool concerns(const KSCacheNode& slot) const {
        return slot.refCount != 0 ? slot.refCount <= highest_ : list_ != nullptr;
    }
    void add(KSCacheNode& slot) {
        slots_[count_++] = &slot;
        if (count_ == slots_.size()) handleBatch();
    }
    void handleBatch() {
        prefetchTrees();
        for (KSCacheNode* slot : std::span(slots_).first(count_)) {
            if (slot->refCount != 0 && !removeNode(cache_, slot)) continue;
            if (list_ != nullptr)
                list_->append(*slot);
            else
                pushFree(cache_, slot);
        }
        count_ = 0;
    }
    void prefetchTrees() {
        size_t victims = 0;
        for (const KSCacheNode* slot : std::span(slots_).first(count_)) {
            if (slot->refCount != 0) keys_[victims++] = {slot->fingerprint, slot->type};
        }
        prefetchPaths(cache_, keys_.data(), victims);
    }

    KSCache* cache_;
    uint64_t highest_;
    FreeListBuilder* list_;
    std::array<KSCacheNode*, kPathsAtOnce> slots_;
    std::array<KSCacheKey, kPathsAtOnce> keys_;
    size_t count_ = 0;
};

void dropAndCompact(KSCache* cache, const Threshold& threshold) {
    if (cache->freeListCount + threshold.victims < cache->areaSize) {
        if (threshold.highest != 0) Dropping(cache, threshold.highest, nullptr).run();
        compact(cache, nullptr);
        return;
    }
    FreeListBuilder list(cache);
    Dropping(cache, threshold.highest, &list).run();
    list.finish();
    compact(cache, &list);
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
    dropAndCompact(cache, threshold);
    return CR_STATUS_OK;
}

uint64_t KSCachePrune(KSCache* cache) noexcept {
    if (checkIdle(cache) != CR_STATUS_OK) return 0;
    KS_TRACE("KSCachePrune: before: %lu nodes on free list",
             static_cast<unsigned long>(cache->freeListCount));
    // A delete frees its slot at once, so there is nothing to prune; only the two traces remain.
    KS_TRACE("KSCachePrune: after: %lu nodes on free list",
             static_cast<unsigned long>(cache->freeListCount));
    return cache->freeListCount;
}
