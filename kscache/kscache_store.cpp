// The life of a cache: create, reset, destroy, statistics.
//
// Thread rule: one thread at a time per cache (kscache_int.h). This includes KSCacheStats(), which
// reads counters that lookups update.
// Invariants:
//  1. The settings are rounded only in cacheInit(), while the cache has no pages.
//  2. A cache always has a root table, in the worst case the one root in the handle.
#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdlib>

#include "kscache/kscache_int.h"
#include "kscache/kscache_memory.h"

namespace kspool {
namespace {

/// The most slots in a page below 4 GiB.
constexpr uint64_t kMaximumAreaSize = UINT32_MAX / kNodeSize;

/// Slots of a page that fills one huge page.
constexpr uint64_t kHugePageSlots = kHugePageSize / kNodeSize;

/// From this number of entries on, an entirely unused huge page is at most 3 % of the pages.
constexpr uint64_t kFewestForHugePages = kHugePageSlots * 100 / 3;

void freeRoots(KSCache* cache) {
    if (cache->roots != &cache->inlineRoot) free(static_cast<void*>(cache->roots));
    cache->roots = nullptr;
}

/// Resets every field except the settings and `moves`. `moves` goes on counting, so that a walk
/// from before the reset notices that its cursor is invalid.
void clearAllButSettings(KSCache* cache) {
    KSCache fresh{};
    fresh.magic = kCacheMagic;
    fresh.lockPages = cache->lockPages;
    fresh.areaSize = cache->areaSize;
    fresh.bits = cache->bits;
    fresh.callback = cache->callback;
    fresh.callbackArg = cache->callbackArg;
    fresh.moves = cache->moves + 1;
    *cache = fresh;
}

/// Replaces bits outside their range, such as 0, by the default.
void clampBits(KSCache* cache) {
    if (cache->bits < 1 || cache->bits > kMaximumBits) cache->bits = kDefaultBits;
    KS_TRACE("KSCacheInit: bits = %i", static_cast<int>(cache->bits));
}

/// Rounds the area size up to whole system pages, so that a mapping wastes less than a slot, and
/// clamps it. The product is computed in 64 bits: 32 would overflow for large area sizes.
void clampAreaSize(KSCache* cache) {
    const int asked = static_cast<int>(cache->areaSize);
    const uint64_t slots = roundUp(cache->areaSize * kNodeSize, systemPageSize()) / kNodeSize;
    if (slots < kMinimumAreaSize) {
        KS_TRACE(
            "KSCacheInit: specified area size %i smaller than minimum allowed. Resetting to "
            "minimum value of %i",
            asked, static_cast<int>(kMinimumAreaSize));
    }
    cache->areaSize =
        static_cast<uint32_t>(std::clamp<uint64_t>(slots, kMinimumAreaSize, kMaximumAreaSize));
    KS_TRACE("KSCacheInit: configured area size: %i. Actual area size: %i", asked,
             static_cast<int>(cache->areaSize));
}

uint32_t printedSize(uint64_t bytes) {
    return static_cast<uint32_t>(std::min<uint64_t>(bytes, UINT32_MAX));
}

/// Allocates the root table, halved until the allocation succeeds; as a last resort uses the one
/// root in the handle itself. So lack of memory for the table makes a cache slower, but never
/// unusable.
void makeRoots(KSCache* cache) {
    for (;;) {
        const uint64_t bytes = sizeof(KSCacheNode*) << cache->bits;
        cache->roots = static_cast<KSCacheNode**>(calloc(1, bytes));
        if (cache->roots != nullptr) {
            adviseHugePages(static_cast<void*>(cache->roots), bytes);
            break;
        }
        if (cache->bits == 0) {
            cache->roots = &cache->inlineRoot;
            break;
        }
        KS_WARNING(ENOMEM,
                   "KSCacheInit: Failed to allocate %u bytes for root entries. Trying to allocate "
                   "%u bytes.",
                   printedSize(bytes), printedSize(bytes / 2));
        --cache->bits;
    }
    const uint32_t count = uint32_t{1} << cache->bits;
    cache->mask = count - 1;
    KS_TRACE("KSCacheInit: initialized using %i bits (mask %u, %i root nodes)",
             static_cast<int>(cache->bits), cache->mask, static_cast<int>(count));
}

}  // namespace

void cacheInit(KSCache* cache) noexcept {
    if (cache == nullptr) return;
    freeRoots(cache);
    clearAllButSettings(cache);
    clampBits(cache);
    clampAreaSize(cache);
    makeRoots(cache);
}

}  // namespace kspool

using namespace kspool;

uint32_t KSCacheBitsFor(uint64_t expectedItems) noexcept {
    if (expectedItems == 0) return 1;
    const auto logarithm = static_cast<uint32_t>(std::bit_width(expectedItems - 1));
    return std::min(logarithm + 1, kMaximumBits);
}

uint32_t KSCacheAreaFor(uint64_t expectedItems) noexcept {
    const uint64_t slots = expectedItems / 200;
    if (expectedItems < kFewestForHugePages)
        return static_cast<uint32_t>(std::max<uint64_t>(slots, kMinimumAreaSize));
    const uint64_t hugePages =
        std::clamp<uint64_t>(slots / kHugePageSlots, 1, kPopulatedAtOnce / kHugePageSize);
    return static_cast<uint32_t>(hugePages * kHugePageSlots);
}

KSCache* KSCacheCreate(uint32_t areaSize, uint32_t bits, uint32_t lockPages,
                       KSCacheAddCallback callback, void* callbackArg) noexcept {
    auto* cache = static_cast<KSCache*>(calloc(1, sizeof(KSCache)));
    if (cache == nullptr) {
        storeSystemError("KSCacheCreate", kSourceFile);
        return nullptr;
    }
    cache->areaSize = areaSize;
    cache->bits = bits;
    cache->lockPages = lockPages;
    cache->callback = callback;
    cache->callbackArg = callbackArg;
    cacheInit(cache);
    return cache;
}

void KSCacheDestroy(KSCache* cache) noexcept {
    if (cache == nullptr) return;
    cacheRelease(cache->firstPage);
    freeRoots(cache);
    free(cache);
}

void KSCacheReset(KSCache* cache) noexcept {
    if (cache == nullptr) return;
    cacheRelease(cache->firstPage);
    cacheInit(cache);
}

uint32_t KSCacheStats(const KSCache* cache, KSCacheStatsRecord* stats) noexcept {
    if (const uint32_t bad = checkHandle(cache)) return bad;
    if (stats == nullptr) return CR_STATUS_INVALID_PARAMETER;
    *stats = {
        .cacheSize = cache->cacheSize,
        .cachedItems = cache->cachedItems,
        .hits = cache->hits,
        .misses = cache->misses,
        .freeListCount = cache->freeListCount,
        .pageCount = cache->pageCount,
        .nodesAvailable = cache->nodesAvailable,
        .lockPages = cache->lockPages,
        .areaSize = cache->areaSize,
        .bits = cache->bits,
        .nodeSize = kNodeSize,
    };
    return CR_STATUS_OK;
}
