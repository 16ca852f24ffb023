// Delete, and the walk over all entries.
#include <utility>

#include "kscache/kscache_int.h"
#include "kscache/kscache_tree.h"

using namespace kspool;

namespace {

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

/// Calls back for each entry until the callback asks to stop. It may add entries and pages, so the
/// ends are looked at anew after each call.
void walk(KSCache* cache, KSCacheIterateCallback callback, void* arg) {
    for (KSCachePage* page = cache->firstPage; page != nullptr; page = page->next) {
        for (KSCacheNode* slot = slotsOf(page).data(); slot < page->end; ++slot) {
            if (slot->refCount == 0) continue;
            if (callback(cache, slot, slot->value, 0, arg) != 0) return;
        }
    }
}

}  // namespace

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

uint32_t KSCacheIterate(KSCache* cache, KSCacheIterateCallback callback, void* arg) noexcept {
    if (const uint32_t bad = checkHandle(cache)) return bad;
    if (callback == nullptr) return CR_STATUS_INVALID_PARAMETER;
    const uint32_t outer = std::exchange(cache->busy, 1);
    walk(cache, callback, arg);
    cache->busy = outer;
    return CR_STATUS_OK;
}
