// Insert, fetch and presence test: three ways of looking at what one search found.
#include "kscache/kscache_int.h"
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
