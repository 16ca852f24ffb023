// The cache's records, and what its source files call of each other.
#ifndef KSCACHE_INT_H
#define KSCACHE_INT_H

#include <cstddef>
#include <cstdint>
#include <span>

#include "common/diagnostics.h"
#include "kscache.h"

/// A page: one mapping of `areaSize` slots. This header lies in slot 0; slots 1 to areaSize - 1
/// hold nodes. The pages of a cache form a list in the order in which they were mapped; slots are
/// issued in address order from the last one.
struct KSCachePage {
    uint64_t size;    ///< length in bytes
    uint32_t locked;  ///< 1: locked into memory
    /// areaSize - 1 at first, one less for each slot that the area issues; compaction sets it to
    /// areaSize less the used slots
    uint32_t freeCount;
    KSCachePage* prev;
    KSCachePage* next;
    KSCacheNode* end;  ///< just past the last slot
};

/// A cache. Each node slot is in exactly one of three places: in the tree of the root that its
/// fingerprint selects (refCount >= 1), on the free list, or in the area, the free end of the last
/// page (refCount 0 in both).
struct KSCache {
    uint32_t magic;
    uint32_t busy;            ///< 1: a walk is under way, memory must stay where it is
    KSCacheNode** roots;      ///< links with marks; on the heap, or &inlineRoot
    KSCacheNode* inlineRoot;  ///< the root table when no memory could be had for another
    uint32_t mask;            ///< 2^bits - 1
    KSCacheNode* freeList;    ///< linked through `higher`
    KSCachePage* firstPage;
    KSCachePage* lastPage;
    KSCacheNode* areaPointer;  ///< next slot of the area
    uint32_t disabled;         ///< 1: no page could be had, and this was reported
    uint32_t pageCount;
    uint32_t nodesAvailable;  ///< slots of the area
    uint64_t freeListCount;
    uint32_t lockPages;
    uint32_t areaSize;  ///< slots per page, the header's included
    uint32_t bits;
    uint64_t cacheSize;    ///< bytes of all pages
    uint64_t cachedItems;  ///< nodes in the trees
    uint64_t hits;
    uint64_t misses;
    void* callbackArg;
    KSCacheAddCallback callback;
};

namespace kspool {

inline constexpr uint32_t kCacheMagic = 0xCAC7E;
inline constexpr uint32_t kMinimumAreaSize = 1024;
inline constexpr uint32_t kDefaultBits = 4;
inline constexpr uint32_t kMaximumBits = 29;
inline constexpr uint64_t kMaximumRefCount = 16383;
inline constexpr uint64_t kNodeSize = sizeof(KSCacheNode);

/// The source file that failed system calls are reported under.
inline constexpr char kSourceFile[] = "../kscache";

/// (Re)initialises a handle whose settings hold the wanted values: rounds them, makes the root
/// table and clears everything else. The pages are forgotten, not released.
void cacheInit(KSCache* cache) noexcept;

/// Unlocks and unmaps every page of a page list.
void cacheRelease(KSCachePage* firstPage) noexcept;

/// One slot for a node, holding whatever it held; NULL with the status in the slot when no page
/// could be had, which leaves the cache as it was but for `disabled`.
KSCacheNode* newnode(KSCache* cache) noexcept;

/// Unlocks and unmaps the last page of a cache and takes it off the list. The area and the free
/// list are not looked at.
void releaseLastPage(KSCache* cache) noexcept;

/// The node slots of a page, used or free.
inline std::span<KSCacheNode> slotsOf(KSCachePage* page) noexcept {
    return {reinterpret_cast<KSCacheNode*>(page) + 1, page->end};
}

/// Puts a slot without references and links on the free list, to be taken next.
inline void pushFree(KSCache* cache, KSCacheNode* slot) noexcept {
    slot->higher = cache->freeList;
    cache->freeList = slot;
    ++cache->freeListCount;
}

/// 0 for a good handle, else its status, which is then in the slot too.
inline uint32_t checkHandle(const KSCache* cache) noexcept {
    if (cache == nullptr) return storeStatus(CR_STATUS_NULL_HANDLE);
    if (cache->magic != kCacheMagic) return storeStatus(CR_STATUS_BAD_HANDLE);
    return CR_STATUS_OK;
}

/// The same, and a fingerprint that is there, without which the slot is left alone.
inline uint32_t checkRequest(const KSCache* cache, const void* fingerprint) noexcept {
    if (const uint32_t bad = checkHandle(cache)) return bad;
    return fingerprint != nullptr ? CR_STATUS_OK : CR_STATUS_INVALID_PARAMETER;
}

/// A good handle, and a cache without a walk under way.
inline uint32_t checkIdle(const KSCache* cache) noexcept {
    if (const uint32_t bad = checkHandle(cache)) return bad;
    if (cache->busy != 0) return storeStatus(CR_STATUS_BUSY);
    return CR_STATUS_OK;
}

static_assert(sizeof(KSCacheNode) == 72 && offsetof(KSCacheNode, higher) == 32 &&
              offsetof(KSCacheNode, lower) == 40 && offsetof(KSCacheNode, value) == 48 &&
              offsetof(KSCacheNode, refCount) == 56 && offsetof(KSCacheNode, type) == 64);
static_assert(sizeof(KSCachePage) == 40 && offsetof(KSCachePage, freeCount) == 12 &&
              offsetof(KSCachePage, next) == 24 && offsetof(KSCachePage, end) == 32);
static_assert(sizeof(KSCacheStatsRecord) == 72 && offsetof(KSCacheStatsRecord, pageCount) == 40 &&
              offsetof(KSCacheStatsRecord, bits) == 56 &&
              offsetof(KSCacheStatsRecord, nodeSize) == 64);
static_assert(sizeof(KSCache) == 152 && offsetof(KSCache, roots) == 8 &&
              offsetof(KSCache, mask) == 24 && offsetof(KSCache, disabled) == 64 &&
              offsetof(KSCache, freeListCount) == 80 && offsetof(KSCache, bits) == 96 &&
              offsetof(KSCache, cacheSize) == 104 && offsetof(KSCache, callback) == 144);

}  // namespace kspool

#endif
