// Pages of node slots: how they are mapped, locked, handed out slot by slot, and released.
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

#include "kscache/kscache_int.h"

namespace kspool {
namespace {

constexpr uint64_t kHugePageSize = uint64_t{2} << 20;

/// The address span looked for when a cache maps its first page. Room for 900 million nodes; a
/// cache that outgrows it goes on above it or wherever the system wants.
constexpr uint64_t kAddressSpan = uint64_t{64} << 30;

/// Larger pages are populated as they are used. With a page for a 200th of the entries, that is
/// from 90 million entries on.
constexpr uint64_t kPopulatedAtOnce = uint64_t{32} << 20;

/// NULL with errno set when it fails.
void* mapMemory(void* hint, uint64_t length, int protection, int extraFlags) {
    void* memory = mmap(hint, length, protection, MAP_PRIVATE | MAP_ANONYMOUS | extraFlags, -1, 0);
    if (memory == MAP_FAILED) return nullptr;
    if (memory == nullptr) {
        munmap(memory, length);
        errno = ENOMEM;
    }
    return memory;
}

/// The first multiple of a power of two from an address on.
char* firstBoundary(void* address, uint64_t multiple) {
    const auto number = reinterpret_cast<uintptr_t>(address);
    return static_cast<char*>(address) + (roundUp(number, multiple) - number);
}

/// The base of a large free span of addresses: reserved, and given back at once.
void* freeSpan(uint64_t atLeast) {
    const ErrorsKept kept;
    for (uint64_t span = kAddressSpan; span >= atLeast; span /= 2) {
        if (void* base = mapMemory(nullptr, span, PROT_NONE, MAP_NORESERVE)) {
            munmap(base, span);
            return base;
        }
    }
    return nullptr;
}

/// Where the next page should lie: above all others, because compaction moves nodes to lower
/// addresses only and the system by itself hands out descending ones. It is a wish; any address
/// works. A page's end is no boundary of the system's for most area sizes, so it is rounded up, and
/// for a page that can hold huge pages to the boundary of one.
void* pageHint(const KSCache* cache, uint64_t length) {
    void* above = cache->lastPage != nullptr ? cache->lastPage->end : freeSpan(length);
    return firstBoundary(above, length >= kHugePageSize ? kHugePageSize : systemPageSize());
}

/// Has a page's memory made at once, with huge pages where they fit, instead of at the first touch
/// of each piece: that is where most of the time of an add goes otherwise. Very large pages grow as
/// they are used.
void populate(void* memory, uint64_t length) {
    adviseHugePages(memory, roundUp(length, systemPageSize()));
    if (length > kPopulatedAtOnce) return;
    const ErrorsKept kept;
    madvise(memory, length, MADV_POPULATE_WRITE);
}

/// Maps a page and fills its header. NULL with errno set when there is no memory.
KSCachePage* mapPage(const KSCache* cache) {
    const uint64_t length = cache->areaSize * kNodeSize;
    void* memory = mapMemory(pageHint(cache, length), length, PROT_READ | PROT_WRITE, 0);
    if (memory == nullptr) return nullptr;
    populate(memory, length);
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

/// Unlocks a page that is locked; false when that fails.
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

/// Stores the status of a failed mapping, and reports it unless the last one failed as well.
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

/// Makes a new page the last one and its slots the area; false, with all reported, if it fails.
bool addPage(KSCache* cache) {
    KSCachePage* page = mapPage(cache);
    if (page == nullptr) {
        reportNoPage(cache);
        return false;
    }
    cache->disabled = 0;
    if (cache->lockPages != 0) lockPage(page);
    appendPage(cache, page);
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

uint64_t systemPageSize() noexcept {
    return static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

void adviseHugePages(void* memory, uint64_t length) noexcept {
    const char* end = static_cast<char*>(memory) + length;
    if (firstBoundary(memory, kHugePageSize) + kHugePageSize > end) return;
    char* begin = firstBoundary(memory, systemPageSize());
    const ErrorsKept kept;
    madvise(begin, static_cast<size_t>(end - begin), MADV_HUGEPAGE);
}

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
    const ErrorsKept kept;
    if (page->locked != 0) munlock(page, page->size);
    munmap(page, page->size);
}

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
