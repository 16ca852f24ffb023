// Insert, fetch, presence test and delete of single entries.
#include <cstring>
#include <utility>

#include "kscache/kscache_entries.h"
#include "kscache/kscache_tree.h"

using namespace kspool;

namespace {

void fillNode(KSCacheNode& node, const Key& key, uint64_t value) {
    // memmove: the key may lie in the slot itself, when a walk's callback deletes its entry and
    // adds it again.
    memmove(node.fingerprint, key.digest, digestLength(key.type));
    node.higher = nullptr;
    node.lower = nullptr;
    node.value = value;
    node.refCount = 1;
    node.type = key.type;
}

/// Unlinks a node from its tree. If it has both children, its in-order successor takes its place:
/// the lowest node of its `higher` subtree. The slot itself is left to the caller.
void unlinkNode(KSCacheNode** link) {
    const KSCacheNode* node = nodeAt(link);
    KSCacheNode* successor = node->higher;
    if (successor == nullptr || node->lower == nullptr) {
        attach(link, successor != nullptr ? successor : node->lower);
        return;
    }
    if (successor->lower != nullptr) {
        KSCacheNode* parent = nullptr;
        while (successor->lower != nullptr)
            parent = std::exchange(successor, successor->lower);
        parent->lower = successor->higher;
        successor->higher = node->higher;
    }
    successor->lower = node->lower;
    attach(link, successor);
}

/// Removes the node of a link from its tree and marks its slot free, without putting it on a list.
void removeAt(KSCache* cache, KSCacheNode** link) {
    KSCacheNode* node = nodeAt(link);
    unlinkNode(link);
    --cache->cachedItems;
    node->refCount = 0;
    node->lower = nullptr;
}

}  // namespace

bool kspool::removeNode(KSCache* cache, KSCacheNode* node) noexcept {
    KSCacheNode** link = findLink(cache, makeKey(node->fingerprint, node->type));
    if (nodeAt(link) != node) return false;
    removeAt(cache, link);
    return true;
}

uint32_t KSCacheAdd(KSCache* cache, const void* fingerprint, uint32_t type, uint64_t value,
                    void* addArg) noexcept {
    if (const uint32_t bad = checkRequest(cache, fingerprint)) return bad;
    const Key key = makeKey(fingerprint, type);
    KSCacheNode** link = findLink(cache, key);
    if (KSCacheNode* known = nodeAt(link)) {
        ++cache->hits;
        countReference(*known);
        if (cache->callback != nullptr && addArg != nullptr) {
            cache->callback(addArg, cache->callbackArg);
        }
        return CR_STATUS_EXISTS;
    }
    KSCacheNode* node = newnode(cache);
    if (node == nullptr) return statusSlot();
    ++cache->cachedItems;
    fillNode(*node, key, value);
    attach(link, node);
    setMark(rootOf(cache, key), key);
    return CR_STATUS_OK;
}

uint32_t KSCacheFetch(const KSCache* cache, const void* fingerprint, uint32_t type,
                      uint64_t* valueOut) noexcept {
    if (const uint32_t bad = checkRequest(cache, fingerprint)) return bad;
    return copyValue(findNode(cache, makeKey(fingerprint, type)), valueOut);
}

uint32_t KSCacheExists(KSCache* cache, const void* fingerprint, uint32_t type,
                       uint64_t* valueOut) noexcept {
    if (const uint32_t bad = checkRequest(cache, fingerprint)) return bad;
    return countLookup(*cache, findNode(cache, makeKey(fingerprint, type)), valueOut);
}

uint32_t KSCacheDelete(KSCache* cache, const void* fingerprint, uint32_t type) noexcept {
    if (const uint32_t bad = checkRequest(cache, fingerprint)) return bad;
    KSCacheNode** link = findLink(cache, makeKey(fingerprint, type));
    KSCacheNode* node = nodeAt(link);
    if (node == nullptr) return CR_STATUS_NOT_FOUND;
    removeAt(cache, link);
    pushFree(cache, node);
    return CR_STATUS_OK;
}
