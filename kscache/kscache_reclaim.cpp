// Compaction, in stages: the free list is sorted, entries of the last pages move into the lowest
// free slots, the pages that this empties are released, and what is free is sorted anew.
#include <algorithm>
#include <array>

#include "kscache/kscache_int.h"
#include "kscache/kscache_lanes.h"
#include "kscache/kscache_tree.h"

namespace kspool {
namespace {

bool isUsed(const KSCacheNode& slot) {
    return slot.refCount != 0;
}

bool holdsSlot(KSCachePage* page, const KSCacheNode* slot) {
    return slot >= slotsOf(page).data() && slot < page->end;
}

unsigned long freeNodes(const KSCache* cache) {
    return cache->freeListCount;
}

/// Resident memory of the process, as the messages print it.
uint32_t residentMemory() {
    return static_cast<uint32_t>(OSGetRSS());
}

void countFree(const KSCache* cache, KSCachePage* page, uint32_t used) {
    page->freeCount = cache->areaSize - used;
}

/// Counts a page's used slots, and its free ones into its header.
uint32_t countSlots(const KSCache* cache, KSCachePage* page) {
    const auto slots = slotsOf(page);
    const auto used = static_cast<uint32_t>(std::count_if(slots.begin(), slots.end(), isUsed));
    countFree(cache, page, used);
    return used;
}

void traceCounts(const KSCache* cache, const KSCachePage* page, uint32_t used) {
    KS_TRACE("Page node count   : %i", static_cast<int>(cache->areaSize - 1));
    KS_TRACE("Page use count    : %i", static_cast<int>(used));
    KS_TRACE("Page free count   : %i", static_cast<int>(page->freeCount - 1));
}

/// Puts the free slots of a stretch on the free list, the lowest at its head.
void pushFreeSlots(KSCache* cache, std::span<KSCacheNode> slots) {
    for (auto slot = slots.rbegin(); slot != slots.rend(); ++slot) {
        if (!isUsed(*slot)) pushFree(cache, &*slot);
    }
}

/// Stage 1: every free slot, those that were never issued included, from the first page's lowest at
/// the head of the list to the last page's highest.
void sortFreeList(KSCache* cache) {
    KSCacheNode** end = &cache->freeList;
    cache->freeListCount = 0;
    for (KSCachePage* page = cache->firstPage; page != nullptr; page = page->next) {
        for (KSCacheNode& slot : slotsOf(page)) {
            if (isUsed(slot)) continue;
            *end = &slot;
            end = &slot.higher;
            ++cache->freeListCount;
        }
    }
    *end = nullptr;
}

/// Whether a node of a page can move: the head of the free list must lie below the page. What one
/// sees when it does not is the end of the stage.
bool canMove(const KSCache* cache, const KSCachePage* page, const KSCacheNode* node) {
    const auto* target = reinterpret_cast<const KSCachePage*>(cache->freeList);
    if (target != nullptr && target < page) return true;
    KS_TRACE(
        "KSCacheReclaim: node %p on page %p in use but no %s node found, relocation completed.",
        static_cast<const void*>(node), static_cast<const void*>(page),
        target == nullptr ? "free" : "suitable");
    return false;
}

/// Moves a node with all that hangs on it into the first free slot. One that is in no tree is
/// dropped, and false returned: the slot stays free.
bool moveNode(KSCache* cache, KSCacheNode* node) {
    KSCacheNode* target = cache->freeList;
    cache->freeList = target->higher;
    --cache->freeListCount;
    KSCacheNode** link = findLink(cache, makeKey(node->fingerprint, node->type));
    const bool inTree = nodeAt(link) == node;
    if (inTree) {
        *target = *node;
        hang(link, target);
    } else {
        char text[65];
        KS_WARNING(CR_STATUS_NO_MEMORY, "KSCache inconsistency: node %s had no parent node",
                   CRFPDigestToString_r(node->fingerprint, node->type, text, sizeof text));
    }
    node->refCount = 0;
    node->higher = nullptr;
    node->lower = nullptr;
    return inTree;
}

/// The next used slots of a page downwards, with their trees on the way.
class NodesToMove {
  public:
    explicit NodesToMove(const KSCache* cache) : front_(cache->firstPage) {}

    /// Takes them from the end of `slots`, which is cut to what lies below them.
    std::span<KSCacheNode* const> take(const KSCache* cache, std::span<KSCacheNode>& slots) {
        size_t count = 0;
        for (; !slots.empty() && count < nodes_.size(); slots = slots.first(slots.size() - 1)) {
            if (isUsed(slots.back())) nodes_[count++] = &slots.back();
        }
        for (size_t i = 0; i < count; ++i)
            keys_[i] = {nodes_[i]->fingerprint, nodes_[i]->type};
        prefetchPaths(cache, keys_.data(), count);
        bringTargets(cache, count);
        return std::span(nodes_).first(count);
    }

  private:
    /// Reads on to the free slots that come next. The list would lead from each to the next one by
    /// a read that waits for memory; in the order of slots, memory comes by itself.
    void bringTargets(const KSCache* cache, size_t count) {
        const KSCacheNode* slot = cache->freeList;
        while (front_ != nullptr && !holdsSlot(front_, slot))
            front_ = front_->next;
        for (; front_ != nullptr && slot < front_->end && count > 0; ++slot) {
            if (!isUsed(*slot)) --count;
        }
        asm volatile("" : : "r"(count));  // has been read for a reason
    }

    KSCachePage* front_;
    std::array<KSCacheNode*, kPathsAtOnce> nodes_;
    std::array<KSCacheKey, kPathsAtOnce> keys_;
};

/// How far stage 2 came.
struct Relocation {
    const KSCachePage* reached = nullptr;
    bool dropped = false;  ///< a node that was in no tree, for which a slot in front stayed free
};

/// Moves nodes off a page, from its last slot down. Returns false when no more can move; `used` is
/// lowered by each that did.
bool emptyPage(KSCache* cache, KSCachePage* page, uint32_t& used, Relocation& relocation) {
    NodesToMove next(cache);
    std::span<KSCacheNode> slots = slotsOf(page);
    while (used > 0) {
        for (KSCacheNode* node : next.take(cache, slots)) {
            if (!canMove(cache, page, node)) return false;
            if (!moveNode(cache, node)) relocation.dropped = true;
            --used;
        }
    }
    return true;
}

/// Stage 2, from the last page backwards.
Relocation relocateNodes(KSCache* cache) {
    Relocation relocation;
    bool more = true;
    for (KSCachePage* page = cache->lastPage; more && page != nullptr; page = page->prev) {
        relocation.reached = page;
        uint32_t used = countSlots(cache, page);
        KS_TRACE("KSCacheReclaim for page %p starting", static_cast<void*>(page));
        KS_TRACE("Page end address  : %p", static_cast<void*>(page->end));
        traceCounts(cache, page, used);
        more = emptyPage(cache, page, used, relocation);
        countFree(cache, page, used);
        KS_TRACE("KSCacheReclaim for page %p completed", static_cast<void*>(page));
        traceCounts(cache, page, used);
        more = more && cache->freeListCount != 0;
    }
    return relocation;
}

/// Stage 3: empty pages at the end of the list go. Counted again, since only the pages that stage 2
/// came to have true counts.
void releaseEmptyPages(KSCache* cache) {
    int freed = 0;
    while (cache->lastPage != nullptr && countSlots(cache, cache->lastPage) == 0) {
        KS_TRACE("KSCacheReclaim: page %p has zero use count, releasing it",
                 static_cast<void*>(cache->lastPage));
        releaseLastPage(cache);
        ++freed;
    }
    KS_TRACE("KSCacheReclaim: stage #3: completed, %i pages freed, %i pages remain", freed,
             static_cast<int>(cache->pageCount));
}

/// Makes the free slots at the end of the last page the area again.
void seatArea(KSCache* cache) {
    KSCachePage* page = cache->lastPage;
    const auto slots = slotsOf(page);
    const auto lastUsed = std::find_if(slots.rbegin(), slots.rend(), isUsed);
    cache->nodesAvailable = static_cast<uint32_t>(lastUsed - slots.rbegin());
    if (cache->nodesAvailable == 0) {
        cache->areaPointer = nullptr;
        KS_TRACE(
            "KSCacheReclaim: stage #4: area pointer reset to NULL, first newnode with exhausted "
            "free list will result in a new page (presumably at %p)",
            static_cast<void*>(page->end));
        return;
    }
    cache->areaPointer = page->end - cache->nodesAvailable;
    KS_TRACE(
        "KSCacheReclaim: stage #4: area pointer starts at %p on page %p with %i nodes available",
        static_cast<void*>(cache->areaPointer), static_cast<void*>(page),
        static_cast<int>(cache->nodesAvailable));
}

/// After stage 2: pages at the beginning of the list that are full. They end at the page with the
/// first slot that is still free, or at the one that stage 2 came to, from which on it emptied
/// some.
uint32_t countFullPages(const KSCache* cache, const Relocation& relocation) {
    uint32_t full = 0;
    if (relocation.dropped) return full;
    for (KSCachePage* page = cache->firstPage; page != relocation.reached; ++full) {
        if (holdsSlot(page, cache->freeList)) break;
        page = page->next;
    }
    return full;
}

/// Stage 4: the area, and a free list of all other free slots; a cache without pages starts over.
void sortFreeSlots(KSCache* cache, uint32_t fullPages) {
    KSCachePage* page = cache->lastPage;
    if (page == nullptr) {
        KS_TRACE("KSCacheReclaim: Cache is empty, last page was processed");
        cacheInit(cache);
        return;
    }
    cache->freeList = nullptr;
    cache->freeListCount = 0;
    seatArea(cache);
    auto slots = slotsOf(page);
    slots = slots.first(slots.size() - cache->nodesAvailable);
    for (uint32_t left = cache->pageCount; left > fullPages; --left) {
        pushFreeSlots(cache, slots);
        page = page->prev;
        if (page != nullptr) slots = slotsOf(page);
    }
    KS_TRACE("KSCacheReclaim: stage #4: completed, %lu nodes on free list", freeNodes(cache));
}

/// Stage 5, for whoever reads the traces.
void reportPages(const KSCache* cache) {
    KS_TRACE("KSCacheReclaim: stage #5: page statistics");
    for (KSCachePage* page = cache->firstPage; page != nullptr; page = page->next) {
        const uint32_t used = countSlots(cache, page);
        KS_TRACE("Page summary for  : %p", static_cast<void*>(page));
        KS_TRACE("Page end address  : %p", static_cast<void*>(page->end));
        traceCounts(cache, page, used);
    }
    KS_TRACE("KSCacheReclaim: stage #5: completed");
    KS_TRACE("KSCacheReclaim: memory usage after cache check: %u", residentMemory());
}

}  // namespace
}  // namespace kspool

using namespace kspool;

void KSCacheReclaim(KSCache* cache) noexcept {
    if (cache == nullptr || cache->busy != 0 || cache->lastPage == nullptr) return;
    if (cache->freeListCount < cache->areaSize) {
        KS_TRACE("KSCacheReclaim: not started, only %lu items on free list", freeNodes(cache));
        return;
    }
    KS_TRACE("KSCacheReclaim: memory usage before rebuild: %u", residentMemory());
    KS_TRACE("KSCacheReclaim: start, %lu items on free list", freeNodes(cache));
    KS_TRACE("KSCacheReclaim: stage #1: rebuilding free list");
    sortFreeList(cache);
    const uint64_t before = cache->freeListCount;
    KS_TRACE("KSCacheReclaim: stage #1: done, %lu nodes on free list", freeNodes(cache));
    KS_TRACE("KSCacheReclaim: stage #2: relocate used nodes");
    const uint32_t fullPages = countFullPages(cache, relocateNodes(cache));
    KS_TRACE("KSCacheReclaim: stage #2: completed");
    KS_TRACE("Nodes relocated         : %lu",
             static_cast<unsigned long>(before - cache->freeListCount));
    KS_TRACE("KSCacheReclaim: stage #3: release empty pages");
    releaseEmptyPages(cache);
    KS_TRACE("KSCacheReclaim: stage #4: rebuild free list");
    sortFreeSlots(cache, fullPages);
    if (tracing()) reportPages(cache);
}
