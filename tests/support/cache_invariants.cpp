#include "tests/support/cache_invariants.h"

#include <cstring>
#include <set>
#include <vector>

#include "kscache/kscache_int.h"

namespace {

using Nodes = std::set<const KSCacheNode*>;

#define REQUIRE_THAT(condition) \
    if (!(condition)) return #condition

/// Checks the page list and sorts its slots: used, free, and never issued.
std::string checkPages(const KSCache* cache, Nodes& used, Nodes& unused, Nodes& area) {
    uint32_t pages = 0;
    uint64_t bytes = 0;
    const KSCachePage* previous = nullptr;
    for (const KSCachePage* page = cache->firstPage; page != nullptr; page = page->next) {
        const auto* slots = reinterpret_cast<const KSCacheNode*>(page);
        REQUIRE_THAT(page->prev == previous);
        REQUIRE_THAT(page->size == uint64_t{cache->areaSize} * 72);
        REQUIRE_THAT(page->end == slots + cache->areaSize);
        REQUIRE_THAT(page->locked == 0 || cache->lockPages != 0);
        for (const KSCacheNode* slot = slots + 1; slot < page->end; ++slot) {
            const bool issued = page != cache->lastPage || cache->areaPointer == nullptr ||
                                slot < cache->areaPointer;
            REQUIRE_THAT(slot->refCount <= 16383);
            REQUIRE_THAT(issued || slot->refCount == 0);
            (slot->refCount != 0 ? used : issued ? unused : area).insert(slot);
        }
        ++pages;
        bytes += page->size;
        previous = page;
    }
    REQUIRE_THAT(cache->lastPage == previous);
    REQUIRE_THAT(cache->pageCount == pages);
    REQUIRE_THAT(cache->cacheSize == bytes);
    REQUIRE_THAT(cache->nodesAvailable == area.size());
    return {};
}

/// A root, and the marks beside it.
const KSCacheNode* topOf(const KSCache* cache, size_t root, uint64_t* marks = nullptr) {
    const auto bits = reinterpret_cast<uint64_t>(cache->roots[root]);
    if (marks != nullptr) *marks = bits >> 48;
    return reinterpret_cast<const KSCacheNode*>(bits & 0xffffffffffff);
}

/// The node where a search ends, told once more in the plainest terms: bytes, and the order's rule.
const KSCacheNode* plainSearch(const KSCache* cache, const KSCacheNode& key) {
    const uint8_t* digest = key.fingerprint;
    const uint32_t word3 = digest[12] | uint32_t{digest[13]} << 8 | uint32_t{digest[14]} << 16 |
                           uint32_t{digest[15]} << 24;
    const KSCacheNode* node = topOf(cache, word3 & cache->mask);
    while (node != nullptr) {
        const bool sameType = node->type == key.type;
        int order = memcmp(node->fingerprint, digest, sameType && key.type == 3 ? 32 : 16);
        if (order == 0 && sameType) break;
        if (order == 0) order = node->type == 3 ? 1 : -1;
        node = order < 0 ? node->higher : node->lower;
    }
    return node;
}

/// Every node of the trees is used, is met once, has its mark at the root, and is where a search
/// for its key ends. An empty tree has no marks.
std::string checkTrees(const KSCache* cache, const Nodes& used) {
    Nodes met;
    std::vector<const KSCacheNode*> open;
    for (size_t root = 0; root <= cache->mask; ++root) {
        uint64_t marks = 0;
        open = {topOf(cache, root, &marks)};
        REQUIRE_THAT(marks == 0 || open.front() != nullptr);
        while (!open.empty()) {
            const KSCacheNode* node = open.back();
            open.pop_back();
            if (node == nullptr) continue;
            REQUIRE_THAT(met.insert(node).second);
            REQUIRE_THAT((marks >> (node->fingerprint[0] % 16) & 1) != 0);
            REQUIRE_THAT(plainSearch(cache, *node) == node);
            open.push_back(node->higher);
            open.push_back(node->lower);
        }
    }
    REQUIRE_THAT(met == used);
    REQUIRE_THAT(cache->cachedItems == met.size());
    return {};
}

std::string checkFreeList(const KSCache* cache, const Nodes& unused) {
    Nodes met;
    for (const KSCacheNode* node = cache->freeList; node != nullptr; node = node->higher) {
        REQUIRE_THAT(met.insert(node).second);
    }
    REQUIRE_THAT(met == unused);
    REQUIRE_THAT(cache->freeListCount == met.size());
    return {};
}

}  // namespace

std::string brokenInvariant(const KSCache* cache) {
    REQUIRE_THAT(cache->magic == 0xCAC7E);
    REQUIRE_THAT(cache->busy == 0);
    REQUIRE_THAT(cache->mask == (uint32_t{1} << cache->bits) - 1);
    Nodes used, unused, area;
    std::string broken = checkPages(cache, used, unused, area);
    if (broken.empty()) broken = checkTrees(cache, used);
    if (broken.empty()) broken = checkFreeList(cache, unused);
    return broken;
}
