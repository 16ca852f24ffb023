// The walks over all entries, in the order of memory. Compaction could move entries past a walk, or
// unmap the page it is on. Therefore `busy` forbids compaction during a walk by callback, and a
// walk by cursor detects a compaction by `moves`.
#include <utility>

#include "kscache/kscache_int.h"

using namespace kspool;

namespace {

/// Calls back for each entry until the callback asks to stop. The callback may add and delete
/// entries, so a slot's refCount and the link to the next page are read only when the walk gets
/// there.
void walk(KSCache* cache, KSCacheIterateCallback callback, void* arg) {
    for (KSCachePage* page = cache->firstPage; page != nullptr; page = page->next) {
        for (KSCacheNode* slot = slotsOf(page).data(); slot < page->end; ++slot) {
            if (slot->refCount == 0) continue;
            if (callback(cache, slot, slot->value, 0, arg) != 0) return;
        }
    }
}

/// Puts a cursor on the first slot of a page.
void enter(KSCacheCursor* cursor, KSCachePage* page) {
    cursor->page = page;
    cursor->slot = slotsOf(page).data();
}

/// The next entry from the cursor's place on, or NULL at the end. The cursor then stays at the end
/// of the last page, so that a later call visits entries that were added behind it.
const KSCacheNode* advance(KSCacheCursor* cursor) {
    for (;;) {
        const auto* page = static_cast<const KSCachePage*>(cursor->page);
        while (cursor->slot < page->end) {
            const KSCacheNode* slot = cursor->slot++;
            if (slot->refCount != 0) return slot;
        }
        if (page->next == nullptr) return nullptr;
        enter(cursor, page->next);
    }
}

}  // namespace

uint32_t KSCacheIterate(KSCache* cache, KSCacheIterateCallback callback, void* arg) noexcept {
    if (const uint32_t bad = checkHandle(cache)) return bad;
    if (callback == nullptr) return CR_STATUS_INVALID_PARAMETER;
    // A nested walk restores `busy` to 1, since the outer walk still needs it.
    const uint32_t outer = std::exchange(cache->busy, 1);
    walk(cache, callback, arg);
    cache->busy = outer;
    return CR_STATUS_OK;
}

uint32_t KSCacheNext(const KSCache* cache, KSCacheCursor* cursor,
                     const KSCacheNode** node) noexcept {
    if (const uint32_t bad = checkHandle(cache)) return bad;
    if (cursor == nullptr || node == nullptr) return CR_STATUS_INVALID_PARAMETER;
    if (cursor->page == nullptr) {
        if (cache->firstPage == nullptr) return CR_STATUS_NOT_FOUND;
        enter(cursor, cache->firstPage);
        cursor->moves = cache->moves;
    }
    if (cursor->moves != cache->moves) return storeStatus(CR_STATUS_BAD_HANDLE);
    const KSCacheNode* found = advance(cursor);
    if (found == nullptr) return CR_STATUS_NOT_FOUND;
    *node = found;
    return CR_STATUS_OK;
}
