// Looking ahead: the memory that searches are about to touch is on its way before they start.
//
// A search is a chain of a few reads, each of which waits for memory and tells where the next one
// goes. The chains of different keys do not depend on each other, so many are followed side by
// side: for each key that is done, one further on takes its first step, another its second, and so
// on, each with the lines that its next step needs on the way. What cannot be guessed is chosen
// without a branch, since a wrong guess costs more than the whole step.
#ifndef KSCACHE_LANES_H
#define KSCACHE_LANES_H

#include <algorithm>
#include <array>

#include "kscache/kscache_int.h"
#include "kscache/kscache_tree.h"

namespace kspool {

/// What the keys are looked up for: to tell what is there, or to change a tree, for which the place
/// where the search ends is wanted even if nothing is there.
enum class Purpose { kTell, kChange };

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

    /// Calls `act(i, node)` for each key in turn. `node` is where the key's search had come to when
    /// it was looked at ahead: NULL if it had ended without the key, otherwise it goes on there.
    /// Only an action that leaves the trees alone may rely on it. While keys are acted on, nodes of
    /// later ones are read: no page may be released.
    template <typename Act>
    void follow(Act act) noexcept {
        constexpr size_t kFilled = kStages * kAhead;
        const size_t steady = std::max(count_, kFilled);
        for (size_t i = 0; i < kFilled; ++i)
            advance(i);
        for (size_t i = kFilled; i < steady; ++i) {
            start(i);
            enter(i - kAhead);
            step(i - 2 * kAhead);
            stepAgain(i - 3 * kAhead);
            act(i - kFilled, reached(i - kFilled));
        }
        for (size_t i = steady; i < count_ + kFilled; ++i) {
            advance(i);
            act(i - kFilled, reached(i - kFilled));
        }
    }

  private:
    static constexpr size_t kStages = 4;
    /// Keys between two stages of one: enough for memory to answer meanwhile.
    static constexpr size_t kAhead = 16;
    static constexpr size_t kLanes = 128;
    static_assert(kLanes > kStages * kAhead);

    struct alignas(16) Lane {
        union {
            KSCacheNode* const* root;
            KSCacheNode* node;
        };
        uint64_t head;  ///< first word of the key
    };

    Lane& lane(size_t i) { return lanes_[i % kLanes]; }

    /// One round of all stages, where the first or the last keys are not to be found in each.
    void advance(size_t i) {
        const auto isKey = [&](size_t number) { return number < count_; };  // nor is one below 0
        if (isKey(i)) start(i);
        if (isKey(i - kAhead)) enter(i - kAhead);
        if (isKey(i - 2 * kAhead)) step(i - 2 * kAhead);
        if (isKey(i - 3 * kAhead)) stepAgain(i - 3 * kAhead);
    }

    void start(size_t i) noexcept {
        const auto* digest = static_cast<const uint8_t*>(keys_[i].fingerprint);
        Lane& l = lane(i);
        l.root = roots_ + rootIndex(digest, mask_);
        l.head = digestWord(digest, 0);
        __builtin_prefetch(static_cast<const void*>(l.root));
    }
    void enter(size_t i) noexcept {
        Lane& l = lane(i);
        const uintptr_t root = bitsOf(l.root);
        KSCacheNode* node = nodeIn(root);
        if (purpose == Purpose::kTell && !isMarked(root, l.head)) node = nullptr;
        goTo(l, orEnd(node));
    }

    /// Goes to where the first word tells; stays where it is the key's, which is nearly always the
    /// end.
    void step(size_t i) noexcept {
        const uint64_t ours = lane(i).head;
        KSCacheNode* node = lane(i).node;
        const uint64_t head = digestWord(node->fingerprint, 0);
        KSCacheNode* higher = node->higher;
        KSCacheNode* lower = node->lower;
        KSCacheNode* next = __builtin_bswap64(head) < __builtin_bswap64(ours) ? higher : lower;
        goTo(lane(i), head == ours ? node : orEnd(next));
    }
    /// Few searches are not at their end by now.
    void stepAgain(size_t i) noexcept {
        const KSCacheNode* node = lane(i).node;
        if (node == &end_ || digestWord(node->fingerprint, 0) == lane(i).head) [[likely]]
            return;
        step(i);
    }
    KSCacheNode* orEnd(KSCacheNode* node) { return node != nullptr ? node : &end_; }
    /// A node lies across two lines, whatever its address.
    void goTo(Lane& lane, KSCacheNode* node) {
        lane.node = node;
        __builtin_prefetch(lane.node);
        __builtin_prefetch(&lane.node->type);
    }
    KSCacheNode* reached(size_t i) { return lane(i).node == &end_ ? nullptr : lane(i).node; }

    KSCacheNode* const* roots_;
    uint32_t mask_;
    const KSCacheKey* keys_;
    size_t count_;
    KSCacheNode end_{};  ///< where searches without a result stay
    std::array<Lane, kLanes> lanes_;
};

/// Paths whose lines stay near while the keys are acted on.
inline constexpr size_t kPathsAtOnce = 256;

/// Brings in what the searches for some keys will touch, and leaves the rest to them.
inline void prefetchPaths(const KSCache* cache, const KSCacheKey* keys, size_t count) noexcept {
    // To the compiler, a function that only prefetches has no effect and need not be called; an
    // empty instruction that it may not drop keeps this one.
    Lanes<Purpose::kChange>(cache, keys, count).follow([](size_t, const KSCacheNode*) {
        asm volatile("");
    });
}

}  // namespace kspool

#endif
