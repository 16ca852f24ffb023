// Pages of node slots: mapped when the area is used up, handed out slot by slot, and released as a
// whole.
//
// Thread rule: one thread at a time per cache (kscache_int.h).
// Invariants:
//  1. Slots come from the free list, then from the area, then from a new page: the area is used
//     only while the free list is empty, and a page is mapped only when both are empty.
//  2. A failed mapping changes nothing but `disabled`: the add fails and the cache remains usable.
//     A page that cannot be locked is used unlocked.
//  3. Single pages are released only from the end of the list, since compaction empties pages from
//     there. The last page contains the area, so the caller rebuilds it.
#include <sys/mman.h>

#include <cstring>

#include "kscache/kscache_int.h"
#include "kscache/kscache_memory.h"

namespace kspool {
namespace {

/// Maps a page and fills in its header. Other header fields and all slots are 0, since mapped
/// memory is zeroed. NULL with errno set when there is no memory.
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

/// Unlocks a page if it is locked; false on failure.
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

/// Stores the status of a failed mapping, and logs it unless the last mapping failed too: otherwise
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

/// Pages below 2 MiB are populated with small system pages. When a new page and the pages before it
/// together fill an aligned 2 MiB range, the range is collapsed into a huge page: random lookups
/// then need one TLB entry per 2 MiB instead of one per 4 KiB.
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

/// Appends a new page, whose slots become the area; false, with the status stored and reported,
/// when it cannot be mapped.
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
