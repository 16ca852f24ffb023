// Pages of node slots: mapped when the area is used up, handed out slot by slot, and released as a
// whole.
//
// Thread rule: one thread at a time per cache (kscache_int.h).
// Invariants:
//  1. The free list comes first, then the area, then a new page: the area is handed out only while
//     the free list is empty, and a page is mapped only when both are.
//  2. A page that cannot be mapped changes nothing but `disabled`, so that the add fails and the
//     cache works on. A page that cannot be locked is used unlocked.
//  3. Only the last page of the list is ever released alone: the area lies in it, and compaction
//     empties pages from the end.
#include <sys/mman.h>

#include <cstring>

#include "kscache/kscache_int.h"
#include "kscache/kscache_memory.h"

namespace kspool {
namespace {

/// Maps a page and fills its header; the rest of the header and all slots are 0, as mapped memory
/// is. NULL with errno set when there is no memory.
KSCachePage* mapPage(const KSCache* cache) {
    const uint64_t length = cache->areaSize * kNodeSize;
    void* memory = mapAbove(cache->lastPage != nullptr ? cache->lastPage->end : nullptr, length);
    if (memory == nullptr) return nullptr;
    auto* page = static_cast<KSCachePage*>(memory);
    page->size = length;
    page->freeCount = cache->areaSize - 1;
    page->end = static_cast<KSCacheNode*>(memory) + cache->areaSize;
    return page;
}

void lockPage(KSCachePage* page) {
    if (mlock(page, page->size) == 0) {
        page->locked = 1;
        return;
    }
    KS_WARNING(static_cast<uint32_t>(errno), "Could not lock cache area %p (%lu pages): %s",
               static_cast<void*>(page), static_cast<unsigned long>(page->size / systemPageSize()),
               strerror(errno));
}

/// Unlocks a locked page; false when that fails.
bool unlockPage(const KSCachePage* page) {
    if (page->locked == 0) return true;
    auto* memory = const_cast<KSCachePage*>(page);
    if (munlock(memory, page->size) != 0) {
        KS_WARNING(static_cast<uint32_t>(errno), "Failed to unlock cache page %p: %s",
                   static_cast<void*>(memory), strerror(errno));
        return false;
    }
    KS_TRACE("unlocked cache area %p (%lu pages)", static_cast<void*>(memory),
             static_cast<unsigned long>(page->size / systemPageSize()));
    return true;
}

/// Stores the status of a failed mapping. It is reported once until a mapping succeeds again, or
/// every add to a full cache would log an error.
void reportNoPage(KSCache* cache) {
    const uint32_t status = storeSystemError("newnode", kSourceFile);
    if (cache->disabled != 0) return;
    KS_ERROR(status,
             "Cache failure: could not allocate a new cache page: alloc failed for %zu bytes "
             "(%s)Caching temporarily disabled.\nCurrent cache size: %lu MB, %i pages active",
             static_cast<size_t>(cache->areaSize * kNodeSize), strerror(errno),
             static_cast<unsigned long>(cache->cacheSize >> 20),
             static_cast<int>(cache->pageCount));
    cache->disabled = 1;
}

void appendPage(KSCache* cache, KSCachePage* page) {
    if (cache->firstPage != nullptr) {
        page->prev = cache->lastPage;
        cache->lastPage->next = page;
    } else {
        cache->firstPage = page;
    }
    cache->lastPage = page;
    ++cache->pageCount;
    cache->cacheSize += page->size;
    cache->areaPointer = reinterpret_cast<KSCacheNode*>(page) + 1;
    cache->nodesAvailable = cache->areaSize - 1;
}

uintptr_t startOf(const KSCachePage* page) {
    return reinterpret_cast<uintptr_t>(page);
}

/// The end of a page's mapping.
uintptr_t endOf(const KSCachePage* page) {
    return roundUp(startOf(page) + page->size, systemPageSize());
}

/// Pages below 2 MiB are populated with small system pages. When a new page completes the range of
/// a huge page, which it shares with the pages before it, the range is collapsed into one: random
/// lookups then need a TLB entry for 2 MiB and not one for each 4 KiB.
void collapseShared(const KSCachePage* page) {
    if (page->size > kPopulatedAtOnce) return;
    const uintptr_t end = endOf(page) & ~(kHugePageSize - 1);
    if (end <= startOf(page) || startOf(page) <= end - kHugePageSize) return;
    const KSCachePage* first = page;
    for (; startOf(first) > end - kHugePageSize; first = first->prev) {
        if (first->prev == nullptr || endOf(first->prev) != startOf(first)) return;
    }
    collapseHugePage(end - kHugePageSize);
}

/// Makes a new page the last one and its slots the area; false, with the status stored and
/// reported, when it cannot be mapped.
bool addPage(KSCache* cache) {
    KSCachePage* page = mapPage(cache);
    if (page == nullptr) {
        reportNoPage(cache);
        return false;
    }
    cache->disabled = 0;
    // Locked last: mlock() populates memory, with small system pages unless huge ones were advised.
    if (cache->lockPages != 0) lockPage(page);
    appendPage(cache, page);
    collapseShared(page);
    return true;
}

KSCacheNode* takeFreeNode(KSCache* cache) {
    KSCacheNode* node = cache->freeList;
    cache->freeList = node->higher;
    --cache->freeListCount;
    if (cache->freeListCount == 0 || cache->freeList == nullptr) {
        cache->freeList = nullptr;
        cache->freeListCount = 0;
    }
    return node;
}

}  // namespace

KSCacheNode* newnode(KSCache* cache) noexcept {
    if (cache->freeList != nullptr) return takeFreeNode(cache);
    if (cache->nodesAvailable == 0 && !addPage(cache)) return nullptr;
    --cache->nodesAvailable;
    --cache->lastPage->freeCount;
    return cache->areaPointer++;
}

void releaseLastPage(KSCache* cache) noexcept {
    KSCachePage* page = cache->lastPage;
    cache->lastPage = page->prev;
    (page->prev != nullptr ? page->prev->next : cache->firstPage) = nullptr;
    --cache->pageCount;
    cache->cacheSize -= page->size;
    const ErrnoAndSlotGuard kept;
    if (page->locked != 0) munlock(page, page->size);
    munmap(page, page->size);
}

// All pages are unlocked before the first is unmapped. If one cannot be unlocked, munlockall()
// unlocks all memory of the process, pages of other caches included (kscache.h, convention 5).
void cacheRelease(KSCachePage* firstPage) noexcept {
    bool unlockFailed = false;
    for (const KSCachePage* page = firstPage; page != nullptr; page = page->next) {
        if (!unlockPage(page)) unlockFailed = true;
    }
    if (unlockFailed) munlockall();
    for (KSCachePage* page = firstPage; page != nullptr;) {
        KSCachePage* next = page->next;
        munmap(page, page->size);
        page = next;
    }
}

}  // namespace kspool
