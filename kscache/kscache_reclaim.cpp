// Compaction, in stages:
//  1. rebuild the free list, so that it holds every free slot, in the order of pages and slots;
//  2. relocate: entries of the last pages move into the first free slots;
//  3. release the empty pages at the end of the list;
//  4. rebuild the area and the free list;
//  5. report, while tracing is on.
//
// Thread rule: one thread at a time per cache (kscache_int.h), and no walk under way (`busy`),
// since a walk holds the address of a slot.
//
// Invariants:
//  1. A node moves only to a page at a lower address than its own. So no move undoes another, and
//     compaction always ends.
//  2. Between moves, each entry is in exactly one slot, and its tree links to that slot: a node is
//     copied before its link is changed, and its old slot is free (refCount 0) but on no list.
//  3. From stage 1 to stage 4 the area is invalid: its slots are on the free list, and
//     `areaPointer` and `nodesAvailable` are not used. newnode() must not run in between.
//  4. After stage 4 the invariants of kscache_int.h hold again.
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

/// Resident memory of the process, truncated to the 32 bits that the messages print.
uint32_t residentMemory() {
    return static_cast<uint32_t>(OSGetRSS());
}

void countFree(const KSCache* cache, KSCachePage* page, uint32_t used) {
    page->freeCount = cache->areaSize - used;
}

/// Counts a page's used slots, and updates the free count in its header.
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

/// Pushes the free slots of a range on the free list, last slot first, so that the lowest ends up
/// at the head.
void pushFreeSlots(KSCache* cache, std::span<KSCacheNode> slots) {
    for (auto slot = slots.rbegin(); slot != slots.rend(); ++slot) {
        if (!isUsed(*slot)) pushFree(cache, &*slot);
    }
}

/// Stage 1: links every free slot, including those of the area, in the order of pages and slots. So
/// the head of the list is always the first free slot, the target of the next move. If `listed` has
/// linked all slots but those of the area, which come last, only these are added.
void rebuildFreeList(KSCache* cache, FreeListBuilder* listed) {
    if (listed != nullptr) {
        for (KSCacheNode& slot : std::span(cache->areaPointer, cache->nodesAvailable))
            listed->append(slot);
        listed->finish();
        return;
    }
    FreeListBuilder list(cache);
    for (KSCachePage* page = cache->firstPage; page != nullptr; page = page->next) {
        for (KSCacheNode& slot : slotsOf(page)) {
            if (!isUsed(slot)) list.append(slot);
        }
    }
    list.finish();
}

/// Whether a node of a page can move: the head of the free list must be at a lower address than the
/// page. If not, this is traced and stage 2 ends.
bool canMove(const KSCache* cache, const KSCachePage* page, const KSCacheNode* node) {
    const auto* target = reinterpret_cast<const KSCachePage*>(cache->freeList);
    if (target != nullptr && target < page) return true;
    KS_TRACE(
        "KSCacheReclaim: node %p on page %p in use but no %s node found, relocation completed.",
        static_cast<const void*>(node), static_cast<const void*>(page),
        target == nullptr ? "free" : "suitable");
    return false;
}

/// Moves a node, with its links, into the first free slot, and updates the link to the node. A node
/// that is in no tree (a corrupt cache) is dropped: its target stays free, and false is returned.
bool moveNode(KSCache* cache, KSCacheNode* node) {
    KSCacheNode* target = cache->freeList;
    cache->freeList = target->higher;
    --cache->freeListCount;
    KSCacheNode** link = findLink(cache, makeKey(node->fingerprint, node->type));
    const bool inTree = nodeAt(link) == node;
    if (inTree) {
        *target = *node;
        attach(link, target);
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

/// The used slots of a page from its end downwards, in batches whose trees and targets are
/// prefetched. One object serves all pages, because it remembers where the next targets are: a
/// search for targets that started at the first page each time would make compaction quadratic.
class NodesToMove {
  public:
    explicit NodesToMove(const KSCache* cache) : front_(cache->firstPage) {}

    /// Takes the next batch from the end of `slots`, which is shortened accordingly.
    std::span<KSCacheNode* const> take(const KSCache* cache, std::span<KSCacheNode>& slots) {
        size_t count = 0;
        for (; !slots.empty() && count < nodes_.size(); slots = slots.first(slots.size() - 1)) {
            if (isUsed(slots.back())) nodes_[count++] = &slots.back();
        }
        for (size_t i = 0; i < count; ++i)
            keys_[i] = {nodes_[i]->fingerprint, nodes_[i]->type};
        prefetchPaths(cache, keys_.data(), count);
        prefetchTargets(cache, count);
        return std::span(nodes_).first(count);
    }

  private:
    /// Reads the slots up to the next `count` free ones. Following the free list instead would be a
    /// chain of dependent cache misses; since stage 1 the list is in the order of slots, and the
    /// processor's hardware prefetcher recognises a sequential read.
    void prefetchTargets(const KSCache* cache, size_t count) {
        const KSCacheNode* slot = cache->freeList;
        while (front_ != nullptr && !holdsSlot(front_, slot))
            front_ = front_->next;
        for (; front_ != nullptr && slot < front_->end && count > 0; ++slot) {
            if (!isUsed(*slot)) --count;
        }
        asm volatile("" : : "r"(count));  // keeps the compiler from dropping the reads
    }

    KSCachePage* front_;
    std::array<KSCacheNode*, kPathsAtOnce> nodes_;
    std::array<KSCacheKey, kPathsAtOnce> keys_;
};

/// How far stage 2 came.
struct Relocation {
    const KSCachePage* reached = nullptr;
    bool dropped = false;  ///< a node was in no tree; the free slot meant for it stays unused
};

/// Moves nodes off a page, from its last slot down. Returns false when no more can move; `used` is
/// decremented for each node that moved or was dropped.
bool emptyPage(KSCache* cache, KSCachePage* page, NodesToMove& next, uint32_t& used,
               Relocation& relocation) {
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

/// Stage 2: takes pages from the last backwards and free slots from the first onwards, until they
/// meet.
Relocation relocateNodes(KSCache* cache) {
    Relocation relocation;
    NodesToMove next(cache);
    bool more = true;
    for (KSCachePage* page = cache->lastPage; more && page != nullptr; page = page->prev) {
        relocation.reached = page;
        uint32_t used = countSlots(cache, page);
        KS_TRACE("KSCacheReclaim for page %p starting", static_cast<void*>(page));
        KS_TRACE("Page end address  : %p", static_cast<void*>(page->end));
        traceCounts(cache, page, used);
        more = emptyPage(cache, page, next, used, relocation);
        countFree(cache, page, used);
        KS_TRACE("KSCacheReclaim for page %p completed", static_cast<void*>(page));
        traceCounts(cache, page, used);
        more = more && cache->freeListCount != 0;
    }
    return relocation;
}

/// Stage 3: releases the empty pages at the end of the list. Used slots are counted again, since
/// only pages that stage 2 reached have current counts.
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

/// Makes the free slots after the last used slot of the last page the area.
void resetArea(KSCache* cache) {
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

/// After stage 2: the number of full pages at the beginning of the list, which stage 4 can skip.
/// The first page that is not full has the first free slot, or is the page that stage 2 reached
/// last: stage 2 has emptied slots from that page on.
uint32_t countFullPages(const KSCache* cache, const Relocation& relocation) {
    uint32_t full = 0;
    if (relocation.dropped) return full;
    for (KSCachePage* page = cache->firstPage; page != relocation.reached; ++full) {
        if (holdsSlot(page, cache->freeList)) break;
        page = page->next;
    }
    return full;
}

/// Stage 4: resets the area, and rebuilds the free list from all other free slots, the lowest at
/// its head. A cache without pages is reinitialised.
void rebuildAreaAndFreeList(KSCache* cache, uint32_t fullPages) {
    KSCachePage* page = cache->lastPage;
    if (page == nullptr) {
        KS_TRACE("KSCacheReclaim: Cache is empty, last page was processed");
        cacheInit(cache);
        return;
    }
    cache->freeList = nullptr;
    cache->freeListCount = 0;
    resetArea(cache);
    auto slots = slotsOf(page);
    slots = slots.first(slots.size() - cache->nodesAvailable);
    for (uint32_t left = cache->pageCount; left > fullPages; --left) {
        pushFreeSlots(cache, slots);
        page = page->prev;
        if (page != nullptr) slots = slotsOf(page);
    }
    KS_TRACE("KSCacheReclaim: stage #4: completed, %lu nodes on free list", freeNodes(cache));
}

/// Stage 5: the page statistics of the trace.
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

void compact(KSCache* cache, FreeListBuilder* listed) noexcept {
    if (cache->busy != 0 || cache->lastPage == nullptr) return;
    if (cache->freeListCount < cache->areaSize) {
        KS_TRACE("KSCacheReclaim: not started, only %lu items on free list", freeNodes(cache));
        return;
    }
    KS_TRACE("KSCacheReclaim: memory usage before rebuild: %u", residentMemory());
    KS_TRACE("KSCacheReclaim: start, %lu items on free list", freeNodes(cache));
    ++cache->moves;
    KS_TRACE("KSCacheReclaim: stage #1: rebuilding free list");
    rebuildFreeList(cache, listed);
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
    rebuildAreaAndFreeList(cache, fullPages);
    if (tracing()) reportPages(cache);
}

}  // namespace kspool

void KSCacheReclaim(KSCache* cache) noexcept {
    if (cache != nullptr) kspool::compact(cache, nullptr);
}
