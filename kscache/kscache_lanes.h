// Software-pipelined lookup: searches of many keys advance side by side, so that their cache misses
// overlap.
//
// A search is a chain of dependent loads (root, node, next node), each of which may miss the
// processor's caches. Chains of different keys are independent. For each key i that is answered,
// key i + 96 prefetches its root, i + 72 reads the root and prefetches its first node, i + 48
// compares and prefetches the next node, i + 24 does so again if needed. A lane is the state of
// one key between these stages. Up to 96 keys take each stage together, before the next stage: a
// pipeline that is never full costs more to fill and to empty than it saves.
//
// Whether a root is empty, and whether a node is left by `higher` or by `lower`, is random: a
// branch on it would often be mispredicted, and each misprediction discards the instructions of the
// following lanes that the processor has started already. So these choices are made without a
// branch. docs/internals/cache-memory.md has a drawing.
//
// Thread rule: one thread at a time per cache (kscache_int.h).
// Invariants of Lanes, while follow() runs:
//  1. Lanes hold addresses of nodes of later keys, which later stages read. So an action must not
//     release a page; and once an action has changed a tree, the nodes handed to later actions may
//     be stale, good for prefetching only.
//  2. Lane i % kLanes belongs to key i from start(i) until act(i). Fewer than kLanes keys are under
//     way at once.
//  3. A lane's node is never NULL: a search without a result stays at the sentinel `end_`, both of
//     whose links lead to itself, so that a step needs no test for NULL.
#ifndef KSCACHE_LANES_H
#define KSCACHE_LANES_H

#include <algorithm>
#include <array>

#include "kscache/kscache_int.h"
#include "kscache/kscache_tree.h"

namespace kspool {

/// Why keys are searched. A lookup ends at the root if the Bloom filter excludes the key; a change
/// descends all the same, since an add needs the link at which its search ends.
enum class Purpose { kLookup, kChange };

template <Purpose purpose>
class Lanes {
  public:
    Lanes(const KSCache* cache, const KSCacheKey* keys, size_t count) noexcept
        : roots_(cache->roots), mask_(cache->mask), keys_(keys), count_(count) {
        end_.higher = &end_;
        end_.lower = &end_;
    }
    Lanes(const Lanes&) = delete;
    Lanes& operator=(const Lanes&) = delete;

    /// Calls `act(i, node)` for each key in turn. `node` is NULL if the search has ended without
    /// the key, otherwise the node at which findBelow() continues the search. An action that
    /// changes the trees must not use `node`, and no action may release a page.
    template <typename Act>
    void follow(Act act) noexcept {
        if (count_ <= kFilled)
            followTogether(act);
        else
            followInTurn(act);
    }

  private:
    static constexpr size_t kStages = 4;
    /// Distance between two stages, in keys: enough work for a prefetch to arrive.
    static constexpr size_t kAhead = 24;
    /// Keys under way at once when the pipeline is full.
    static constexpr size_t kFilled = kStages * kAhead;
    /// A ring buffer; a power of two, so that the index is masked and not divided.
    static constexpr size_t kLanes = 128;
    static_assert(kLanes > kFilled);

    struct alignas(16) Lane {
        union {
            KSCacheNode* const* root;
            KSCacheNode* node;
        };
        uint64_t head;  ///< first word of the key
    };

    Lane& lane(size_t i) { return lanes_[i % kLanes]; }

    template <typename Act>
    void followTogether(Act act) noexcept {
        for (size_t i = 0; i < count_; ++i)
            start(i);
        for (size_t i = 0; i < count_; ++i)
            enter(i);
        for (size_t i = 0; i < count_; ++i)
            step(i);
        for (size_t i = 0; i < count_; ++i)
            stepAgain(i);
        for (size_t i = 0; i < count_; ++i)
            act(i, reached(i));
    }

    template <typename Act>
    void followInTurn(Act act) noexcept {
        for (size_t i = 0; i < kFilled; ++i)
            advance(i);
        for (size_t i = kFilled; i < count_; ++i) {
            start(i);
            enter(i - kAhead);
            step(i - 2 * kAhead);
            stepAgain(i - 3 * kAhead);
            act(i - kFilled, reached(i - kFilled));
        }
        for (size_t i = count_; i < count_ + kFilled; ++i) {
            advance(i);
            act(i - kFilled, reached(i - kFilled));
        }
    }

    /// One round of all stages, for the first and last keys, when some stages are empty.
    void advance(size_t i) {
        // i - kAhead wraps around for small i and fails this test.
        const auto isKey = [&](size_t number) { return number < count_; };
        if (isKey(i)) start(i);
        if (isKey(i - kAhead)) enter(i - kAhead);
        if (isKey(i - 2 * kAhead)) step(i - 2 * kAhead);
        if (isKey(i - 3 * kAhead)) stepAgain(i - 3 * kAhead);
    }

    /// The second-level cache. A prefetch to the first level holds one of its few miss buffers
    /// until memory answers, and with all of them held the processor waits, whatever the distance;
    /// the second level has more. On Zen 4 this halves the time of a hit, on Zen 3 both levels are
    /// alike (docs/decisions/0005).
    static constexpr int kPrefetchedTo = 2;
    static void prefetch(const void* line) { __builtin_prefetch(line, 0, kPrefetchedTo); }

    void start(size_t i) noexcept {
        const auto* digest = static_cast<const uint8_t*>(keys_[i].fingerprint);
        prefetch(keys_[std::min(i + kAhead, count_ - 1)].fingerprint);  // digests can be scattered
        Lane& l = lane(i);
        l.root = roots_ + rootIndex(digest, mask_);
        l.head = digestWord(digest, 0);
        prefetch(static_cast<const void*>(l.root));
    }
    void enter(size_t i) noexcept {
        Lane& l = lane(i);
        const uintptr_t root = bitsOf(l.root);
        KSCacheNode* node = nodeIn(root);
        if (purpose == Purpose::kLookup && !isMarked(root, l.head)) node = nullptr;
        goTo(l, orEnd(node));
    }

    /// Descends by the first word; stays if it matches, for the node is then nearly always the
    /// key's. Both links are loaded before the choice, so that it can be a conditional move.
    void step(size_t i) noexcept {
        const uint64_t ours = lane(i).head;
        KSCacheNode* node = lane(i).node;
        const uint64_t head = digestWord(node->fingerprint, 0);
        KSCacheNode* higher = node->higher;
        KSCacheNode* lower = node->lower;
        KSCacheNode* next = __builtin_bswap64(head) < __builtin_bswap64(ours) ? higher : lower;
        goTo(lane(i), head == ours ? node : orEnd(next));
    }
    /// A second step, for the few keys whose search has not ended. The branch is usually predicted
    /// correctly; an unconditional second step would cost more than it saves.
    void stepAgain(size_t i) noexcept {
        const KSCacheNode* node = lane(i).node;
        if (node == &end_ || digestWord(node->fingerprint, 0) == lane(i).head) [[likely]]
            return;
        step(i);
    }
    KSCacheNode* orEnd(KSCacheNode* node) { return node != nullptr ? node : &end_; }
    /// Prefetches both cache lines of a node: 72 bytes at a multiple of 8 always take exactly two,
    /// the second of which holds the type.
    void goTo(Lane& lane, KSCacheNode* node) {
        lane.node = node;
        prefetch(lane.node);
        prefetch(&lane.node->type);
    }
    KSCacheNode* reached(size_t i) { return lane(i).node == &end_ ? nullptr : lane(i).node; }

    KSCacheNode* const* roots_;
    uint32_t mask_;
    const KSCacheKey* keys_;
    size_t count_;
    KSCacheNode end_{};  ///< sentinel: its links lead to itself
    std::array<Lane, kLanes> lanes_;
};

/// Keys of one prefetchPaths() call: few enough that their cache lines (a root, one or two nodes)
/// are still in the processor's caches when the last key is acted on.
inline constexpr size_t kPathsAtOnce = 256;

/// Prefetches the roots and nodes that searches for these keys will read. The caller then makes the
/// searches, and may change the trees and release pages meanwhile.
inline void prefetchPaths(const KSCache* cache, const KSCacheKey* keys, size_t count) noexcept {
    // The compiler does not count a prefetch as a side effect and would drop the call as pure; an
    // empty volatile asm keeps it.
    Lanes<Purpose::kChange>(cache, keys, count).follow([](size_t, const KSCacheNode*) {
        asm volatile("");
    });
}

}  // namespace kspool

#endif
