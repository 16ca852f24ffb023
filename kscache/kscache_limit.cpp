// The memory limit: which entries to drop, by how often they were asked for.
#include <algorithm>
#include <array>

#include "kscache/kscache_int.h"
#include "kscache/kscache_lanes.h"

using namespace kspool;

namespace {

constexpr uint64_t kMebibyte = uint64_t{1} << 20;

/// What to drop: all entries with a reference count up to `highest`.
struct Threshold {
    uint64_t highest;
    uint64_t bytesKept;
};

/// The highest threshold that is needed for the entries above it to fit into the budget; 0 when all
/// fit.
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

/// Entries on their way to KSCacheDelete(), a few at a time, so that their trees can be on their
/// way meanwhile.
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

/// Free slots are passed over: they keep the key of their last entry, which may live on elsewhere.
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
    // Slots without references are on the free list or were never issued: there is no entry to
    // drop.
    KS_TRACE("KSCachePrune: after: %lu nodes on free list",
             static_cast<unsigned long>(cache->freeListCount));
    return cache->freeListCount;
}
