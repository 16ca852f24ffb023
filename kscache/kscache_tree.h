// The search structure: 2^bits roots, and below each an unbalanced binary tree.
//
// Nodes are ordered by type and digest. Nodes of one type compare all bytes of their digests. Nodes
// of two types compare 16 bytes, and when these agree a node of type 3 sorts after the key, one of
// any other type before it. With three or more types that share 16 bytes this is no total order
// (each of two types other than 3 sorts before the other), yet a search takes the same turns as the
// insert did, so it is sound.
#ifndef KSCACHE_TREE_H
#define KSCACHE_TREE_H

#include <cstring>

#include "kscache/kscache_int.h"

namespace kspool {

inline constexpr uint8_t kLongType = 3;
inline constexpr size_t kLongDigest = 32;
inline constexpr size_t kShortDigest = 16;

constexpr size_t digestLength(uint8_t type) noexcept {
    return type == kLongType ? kLongDigest : kShortDigest;
}

/// Eight digest bytes as the number that compares as they do.
inline uint64_t digestWord(const uint8_t* bytes) noexcept {
    uint64_t word = 0;
    memcpy(&word, bytes, sizeof word);
    return __builtin_bswap64(word);
}

struct Key {
    const uint8_t* bytes;
    uint64_t head;  ///< the first eight bytes, in a register for the whole search
    uint8_t type;
};

inline Key makeKey(const void* fingerprint, uint32_t type) noexcept {
    const auto* bytes = static_cast<const uint8_t*>(fingerprint);
    return {bytes, digestWord(bytes), static_cast<uint8_t>(type)};
}

/// The order of nodes whose first eight bytes are the key's.
inline int compareTails(const KSCacheNode& node, const Key& key) noexcept {
    const bool sameType = node.type == key.type;
    const size_t length = sameType ? digestLength(key.type) : kShortDigest;
    for (size_t at = sizeof key.head; at < length; at += sizeof key.head) {
        const uint64_t ours = digestWord(node.fingerprint + at);
        const uint64_t theirs = digestWord(key.bytes + at);
        if (ours != theirs) return ours < theirs ? -1 : 1;
    }
    if (sameType) return 0;
    return node.type == kLongType ? 1 : -1;
}

/// Negative: the node sorts before the key, which is to be looked for at `higher`. Positive: at
/// `lower`. The first eight bytes nearly always decide, and whatever the types, they decide first;
/// only an equal head makes the search touch the rest of the node.
inline int compareNode(const KSCacheNode& node, const Key& key) noexcept {
    const uint64_t head = digestWord(node.fingerprint);
    if (head != key.head) return head < key.head ? -1 : 1;
    return compareTails(node, key);
}

inline KSCacheNode** rootLink(const KSCache* cache, const uint8_t* fingerprint) noexcept {
    uint32_t word3 = 0;
    memcpy(&word3, fingerprint + 12, sizeof word3);
    return &cache->roots[word3 & cache->mask];
}

/// The link that holds the key's node, or the empty link where it belongs.
inline KSCacheNode** findLink(const KSCache* cache, const Key& key) noexcept {
    KSCacheNode** link = rootLink(cache, key.bytes);
    while (KSCacheNode* node = *link) {
        const int order = compareNode(*node, key);
        if (order == 0) break;
        link = order < 0 ? &node->higher : &node->lower;
    }
    return link;
}

}  // namespace kspool

#endif
