// The search structure: a hash table of 2^bits roots, and below each an unbalanced binary search
// tree. With as many roots as KSCacheBitsFor() advises most trees hold one node or none.
//
// Order. Nodes are ordered by digest and type. Nodes of one type compare all bytes of their
// digests. Nodes of two types compare 16 bytes, and when these agree a node of type 3 sorts after
// the key, one of any other type before it. This is not a total order: if digests of two types
// other than 3 share 16 bytes, each sorts before the other. Searches are correct all the same,
// since a search turns at each node as the insert of its key did. No code may assume that a < b
// excludes b < a.
//
// Thread rule: one thread at a time per cache (kscache_int.h).
// Invariants:
//  1. A node is in the tree of root `rootIndex(fingerprint, mask)`, at the place where a search for
//     its key ends.
//  2. A root's Bloom filter holds the mark of each key in its tree: no false negatives. An empty
//     tree has no marks, so its root is NULL. Links inside nodes never have marks.
//  3. Node addresses need at most 48 bits.
#ifndef KSCACHE_TREE_H
#define KSCACHE_TREE_H

#include <bit>
#include <cstring>

#include "kscache/kscache_int.h"

namespace kspool {

inline constexpr uint8_t kLongType = 3;
inline constexpr size_t kLongDigest = 32;
inline constexpr size_t kShortDigest = 16;

constexpr size_t digestLength(uint8_t type) noexcept {
    return type == kLongType ? kLongDigest : kShortDigest;
}

/// Eight bytes of a digest as one native word: only good for testing equality.
inline uint64_t digestWord(const uint8_t* digest, size_t at) noexcept {
    uint64_t word = 0;
    memcpy(&word, digest + at, sizeof word);
    return word;
}

/// The same eight bytes as a big-endian number, which compares as memcmp() compares the bytes.
inline uint64_t orderedWord(const uint8_t* digest, size_t at) noexcept {
    return __builtin_bswap64(digestWord(digest, at));
}

struct Key {
    const uint8_t* digest;
    uint64_t head;  ///< the first word, in a register for the whole search
    uint8_t type;
};

inline Key makeKey(const void* fingerprint, uint32_t type) noexcept {
    const auto* digest = static_cast<const uint8_t*>(fingerprint);
    return {digest, digestWord(digest, 0), static_cast<uint8_t>(type)};
}

/// Whether a node holds the key. The first word nearly always decides, so that a node of another
/// key costs one cache line. The comparison branches word by word, on purpose: these branches are
/// nearly always predicted, and the processor goes on to the next lookup before the node arrives,
/// while a branch-free comparison would make later instructions depend on this load.
inline bool holdsKey(const KSCacheNode& node, const Key& key) noexcept {
    const auto same = [&](size_t at) {
        return digestWord(node.fingerprint, at) == digestWord(key.digest, at);
    };
    if (digestWord(node.fingerprint, 0) != key.head) return false;
    if (!same(8) || node.type != key.type) return false;
    return key.type != kLongType || (same(16) && same(24));
}

/// Whether a node that does not hold the key sorts before it: the search goes on at `higher` then,
/// at `lower` otherwise.
inline bool sortsBefore(const KSCacheNode& node, const Key& key) noexcept {
    const uint64_t head = orderedWord(node.fingerprint, 0);
    const uint64_t keyHead = __builtin_bswap64(key.head);
    if (head != keyHead) [[likely]]
        return head < keyHead;
    const size_t length = node.type == key.type ? digestLength(key.type) : kShortDigest;
    for (size_t at = sizeof head; at < length; at += sizeof head) {
        const uint64_t ours = orderedWord(node.fingerprint, at);
        const uint64_t theirs = orderedWord(key.digest, at);
        if (ours != theirs) return ours < theirs;
    }
    return node.type != kLongType;
}

/// A link holds the address of a node, or NULL. Addresses of user space need at most 48 bits, so a
/// link of the root table keeps a Bloom filter of its tree in the other 16: one hash function, four
/// bits of the digest, picks the mark that an added key sets. A key whose mark is not set is not in
/// the tree, so most misses end at the root, without the cache miss and the branch misprediction of
/// reading a node with another key. As in any Bloom filter, a bit cannot be cleared for a single
/// key; all are cleared when the tree becomes empty. Until then a stale bit only causes a false
/// positive: a search that finds nothing.
inline constexpr uint32_t kAddressBits = 48;
inline constexpr uint64_t kMarks = 64 - kAddressBits;

/// The raw bits of a link, marks included.
inline uintptr_t bitsOf(KSCacheNode* const* link) noexcept {
    return reinterpret_cast<uintptr_t>(*link);
}

inline KSCacheNode* nodeIn(uintptr_t bits) noexcept {
    return std::bit_cast<KSCacheNode*>(bits & ((uintptr_t{1} << kAddressBits) - 1));
}

inline KSCacheNode* nodeAt(KSCacheNode* const* link) noexcept {
    return nodeIn(bitsOf(link));
}

/// Stores a node in a link and keeps the link's marks. NULL clears both, since the tree of a root
/// is then empty.
inline void attach(KSCacheNode** link, KSCacheNode* node) noexcept {
    const uintptr_t marks = bitsOf(link) ^ reinterpret_cast<uintptr_t>(nodeAt(link));
    const uintptr_t bits = node != nullptr ? marks | reinterpret_cast<uintptr_t>(node) : 0;
    *link = std::bit_cast<KSCacheNode*>(bits);
}

constexpr uintptr_t markOf(uint64_t keyHead) noexcept {
    return uintptr_t{1} << (kAddressBits + keyHead % kMarks);
}

inline void setMark(KSCacheNode** root, const Key& key) noexcept {
    *root = std::bit_cast<KSCacheNode*>(bitsOf(root) | markOf(key.head));
}

inline bool isMarked(uintptr_t bits, uint64_t keyHead) noexcept {
    return (bits & markOf(keyHead)) != 0;
}

inline void countReference(KSCacheNode& node) noexcept {
    if (node.refCount < kMaximumRefCount) ++node.refCount;
}

inline uint32_t rootIndex(const uint8_t* digest, uint32_t mask) noexcept {
    uint32_t word3 = 0;
    memcpy(&word3, digest + 12, sizeof word3);
    return word3 & mask;
}

inline KSCacheNode** rootOf(const KSCache* cache, const Key& key) noexcept {
    return &cache->roots[rootIndex(key.digest, cache->mask)];
}

/// The link that holds the key's node, or the empty link where it belongs.
inline KSCacheNode** findLink(const KSCache* cache, const Key& key) noexcept {
    KSCacheNode** link = rootOf(cache, key);
    while (KSCacheNode* node = nodeAt(link)) {
        if (holdsKey(*node, key)) break;
        link = sortsBefore(*node, key) ? &node->higher : &node->lower;
    }
    return link;
}

/// The key's node in the subtree of a node, or NULL.
inline KSCacheNode* findBelow(KSCacheNode* node, const Key& key) noexcept {
    while (node != nullptr && !holdsKey(*node, key))
        node = sortsBefore(*node, key) ? node->higher : node->lower;
    return node;
}

/// The key's node, or NULL. For lookups only: an add needs the link even if the mark is not set.
inline KSCacheNode* findNode(const KSCache* cache, const Key& key) noexcept {
    const uintptr_t root = bitsOf(rootOf(cache, key));
    return isMarked(root, key.head) ? findBelow(nodeIn(root), key) : nullptr;
}

}  // namespace kspool

#endif
