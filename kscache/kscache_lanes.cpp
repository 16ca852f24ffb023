#include "kscache/kscache_lanes.h"

#include <algorithm>
#include <array>

#include "kscache/kscache_tree.h"

namespace kspool {
namespace {

struct Lane {
    const KSCacheNode* node;
    uint64_t head;  ///< first word of the key
};

/// A node lies across two lines, whatever its address.
void prefetchNode(const KSCacheNode* node) {
    __builtin_prefetch(node);
    __builtin_prefetch(&node->type);
}

/// Where the search goes from a node as far as the first word tells; NULL when it may end there.
const KSCacheNode* nextOf(const Lane& lane) {
    const uint64_t head = digestWord(lane.node->fingerprint, 0);
    if (head == lane.head) return nullptr;
    return __builtin_bswap64(head) < __builtin_bswap64(lane.head) ? lane.node->higher
                                                                  : lane.node->lower;
}

}  // namespace

void prefetchPaths(const KSCache* cache, const KSCacheKey* keys, size_t count) noexcept {
    std::array<KSCacheNode**, kLanes> roots;
    for (size_t i = 0; i < count; ++i) {
        roots[i] = rootLink(cache, static_cast<const uint8_t*>(keys[i].fingerprint));
        __builtin_prefetch(roots[i]);
    }
    std::array<Lane, kLanes> lanes;
    size_t open = 0;
    for (size_t i = 0; i < count; ++i) {
        const KSCacheNode* node = *roots[i];
        if (node == nullptr) continue;
        prefetchNode(node);
        lanes[open++] = {node, digestWord(static_cast<const uint8_t*>(keys[i].fingerprint), 0)};
    }
    while (open > 0) {
        size_t kept = 0;
        for (size_t i = 0; i < open; ++i) {
            const KSCacheNode* next = nextOf(lanes[i]);
            if (next == nullptr) continue;
            prefetchNode(next);
            lanes[kept++] = {next, lanes[i].head};
        }
        open = kept;
    }
}

}  // namespace kspool
