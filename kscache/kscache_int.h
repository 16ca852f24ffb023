// The cache's records, and the functions that its source files share.
//
// Thread rule: one thread at a time per cache, lookups included, since they update counters and
// reference counts. No lock is taken; different caches share no data.
// Invariants, between any two calls:
//  1. Each slot is in exactly one of: the tree of the root that its key selects (refCount >= 1),
//     the free list, or the area (refCount 0 in both). Passes over pages recognise used slots by
//     refCount alone: a free slot still holds the bytes of its last key.
//  2. The area is the unused end of the last page, from `areaPointer` on. No other page has an
//     area, since a page is added only when the area is used up.
//  3. A search for the key of a node ends at that node (kscache_tree.h has the invariants of a
//     tree). So a key is in one node at most.
//  4. Every page has `areaSize` slots. `areaSize`, `bits` and `mask` change only in cacheInit(),
//     when there are no pages.
//  5. A node keeps its address as long as its entry lives. Only compaction moves nodes, and `busy`
//     prevents compaction during a walk.
//  6. The counters are exact: `cachedItems` nodes in the trees, `freeListCount` on the free list,
//     `nodesAvailable` in the area. `KSCachePage::freeCount` alone is not (see there).
#ifndef KSCACHE_INT_H
#define KSCACHE_INT_H

#include <cstddef>
#include <cstdint>
#include <span>

#include "common/diagnostics.h"
#include "kscache.h"

/// A page: one memory mapping of `areaSize` slots of 72 bytes. This header lies in slot 0, slots 1
/// to areaSize - 1 hold nodes. A slot has no header of its own: used and free slots are both
/// KSCacheNode records, so that a pass over a page is a walk over an array. The pages form a
/// doubly linked list in the order in which they were mapped, which is that of their addresses
/// wherever the system honours the address hint (kscache_memory.h).
struct KSCachePage {
    uint64_t size;    ///< length in bytes
    uint32_t locked;  ///< 1: locked into memory
    /// For reports only, and not exact: areaSize - 1 at first, decremented for each slot taken from
    /// the area, unchanged by deletion. Compaction sets it to areaSize minus the used slots, which
    /// counts the header as a free slot.
    uint32_t freeCount;
    KSCachePage* prev;
    KSCachePage* next;
    KSCacheNode* end;  ///< just past the last slot
};

/// A cache: a hash table of 2^bits roots, each the root of a binary search tree whose nodes are
/// slots of the pages. A reset keeps the settings (`lockPages`, `areaSize`, `bits`, callback) and
/// reinitialises all other fields. The area hands out slots in address order. The free list is a
/// stack, so that the slot freed last, probably still in the processor's cache, is reused first.
struct KSCache {
    uint32_t magic;
    uint32_t busy;            ///< 1: a walk is under way, so nodes must not move
    KSCacheNode** roots;      ///< links with Bloom marks; on the heap, or &inlineRoot
    KSCacheNode* inlineRoot;  ///< a table of one root, for when no other could be allocated
    uint32_t mask;            ///< 2^bits - 1
    KSCacheNode* freeList;    ///< linked through `higher`
    KSCachePage* firstPage;
    KSCachePage* lastPage;
    KSCacheNode* areaPointer;  ///< next slot of the area; no slot if nodesAvailable is 0
    uint32_t disabled;         ///< 1: no page could be mapped, and this was reported
    uint32_t pageCount;
    uint32_t nodesAvailable;  ///< slots of the area
    uint64_t freeListCount;
    uint32_t lockPages;
    uint32_t areaSize;  ///< slots per page, the header's included
    uint32_t bits;
    uint32_t moves;        ///< compactions and resets: each invalidates walks by KSCacheNext()
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

/// (Re)initialises a cache: rounds its settings, makes the root table and clears all other fields.
/// REQUIRES: the settings are set, and the pages released.
void cacheInit(KSCache* cache) noexcept;

/// Unlocks and unmaps every page of a page list.
void cacheRelease(KSCachePage* firstPage) noexcept;

/// Takes one slot for a node, from the free list, the area or a new page. The slot still holds the
/// bytes of its last entry. When no page can be mapped, returns NULL with the status in the slot
/// and changes nothing but `disabled`.
KSCacheNode* newnode(KSCache* cache) noexcept;

/// Unlocks and unmaps the last page of a cache and takes it off the page list. The area and the
/// free list may still point into it: the caller rebuilds both.
void releaseLastPage(KSCache* cache) noexcept;

/// The node slots of a page, used or free.
inline std::span<KSCacheNode> slotsOf(KSCachePage* page) noexcept {
    return {reinterpret_cast<KSCacheNode*>(page) + 1, page->end};
}

/// Puts a slot at the head of the free list. REQUIRES: its refCount and `lower` are cleared.
inline void pushFree(KSCache* cache, KSCacheNode* slot) noexcept {
    slot->higher = cache->freeList;
    cache->freeList = slot;
    ++cache->freeListCount;
}

/// Replaces the free list by a new one, built from its head on. Complete after finish().
class FreeListBuilder {
  public:
    explicit FreeListBuilder(KSCache* cache) noexcept : cache_(cache), end_(&cache->freeList) {
        cache->freeListCount = 0;
    }
    void append(KSCacheNode& slot) noexcept {
        *end_ = &slot;
        end_ = &slot.higher;
        ++cache_->freeListCount;
    }
    void finish() noexcept { *end_ = nullptr; }

  private:
    KSCache* cache_;
    KSCacheNode** end_;
};

/// KSCacheReclaim(). `listed` is NULL, or has already linked every free slot outside the area, in
/// the order of pages and slots; this saves a pass over the pages.
void compact(KSCache* cache, FreeListBuilder* listed) noexcept;

/// Removes a node from its tree and marks its slot free, without putting it on a list. False, with
/// nothing changed, for a node that is in no tree (a corrupt cache).
bool removeNode(KSCache* cache, KSCacheNode* node) noexcept;

/// 0 for a valid handle, else a status, which is also stored in the slot.
inline uint32_t checkHandle(const KSCache* cache) noexcept {
    if (cache == nullptr) return storeStatus(CR_STATUS_NULL_HANDLE);
    if (cache->magic != kCacheMagic) return storeStatus(CR_STATUS_BAD_HANDLE);
    return CR_STATUS_OK;
}

/// As checkHandle(), and CR_STATUS_INVALID_PARAMETER for a NULL fingerprint, which leaves the
/// status slot alone.
inline uint32_t checkRequest(const KSCache* cache, const void* fingerprint) noexcept {
    if (const uint32_t bad = checkHandle(cache)) return bad;
    return fingerprint != nullptr ? CR_STATUS_OK : CR_STATUS_INVALID_PARAMETER;
}

/// As checkHandle(), and CR_STATUS_BUSY while a walk is under way.
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
