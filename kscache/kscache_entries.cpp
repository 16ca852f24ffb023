// Insert, fetch, presence test and delete of single entries.
#include <cstring>
#include <utility>

#include "kscache/kscache_entries.h"
#include "kscache/kscache_tree.h"

using namespace kspool;

namespace {

void fillNode(KSCacheNode& node, const Key& key, uint64_t value) {
    // The key may lie in the slot itself: a walk may delete its entry and add it again.
    memmove(node.fingerprint, key.digest, digestLength(key.type));
    node.higher = nullptr;
    node.lower = nullptr;
    node.value = value;
    node.refCount = 1;
    node.type = key.type;
}

/// Takes a node out of its tree. Its place goes to the next entry in the order, the lowest of those
/// above it.
void unlinkNode(KSCacheNode** link) {
    const KSCacheNode* node = nodeAt(link);
    KSCacheNode* successor = node->higher;
    if (successor == nullptr || node->lower == nullptr) {
        hang(link, successor != nullptr ? successor : node->lower);
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
    hang(link, successor);
}

}  // namespace

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
    hang(link, node);
    mark(rootOf(cache, key), key);
    return CR_STATUS_OK;
}

uint32_t KSCacheFetch(const KSCache* cache, const void* fingerprint, uint32_t type,
                      uint64_t* valueOut) noexcept {
    if (const uint32_t bad = checkRequest(cache, fingerprint)) return bad;
    return tellValue(findNode(cache, makeKey(fingerprint, type)), valueOut);
}

uint32_t KSCacheExists(KSCache* cache, const void* fingerprint, uint32_t type,
                       uint64_t* valueOut) noexcept {
    if (const uint32_t bad = checkRequest(cache, fingerprint)) return bad;
    return countLookup(cache, findNode(cache, makeKey(fingerprint, type)), valueOut);
}

uint32_t KSCacheDelete(KSCache* cache, const void* fingerprint, uint32_t type) noexcept {
    if (const uint32_t bad = checkRequest(cache, fingerprint)) return bad;
    KSCacheNode** link = findLink(cache, makeKey(fingerprint, type));
    KSCacheNode* node = nodeAt(link);
    if (node == nullptr) return CR_STATUS_NOT_FOUND;
    unlinkNode(link);
    --cache->cachedItems;
    node->refCount = 0;
    node->lower = nullptr;
    pushFree(cache, node);
    return CR_STATUS_OK;
}
