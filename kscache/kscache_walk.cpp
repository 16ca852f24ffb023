// The walk over all entries, in the order of memory. `busy` keeps compaction out meanwhile, since
// it would move entries past the walk or unmap its page.
#include <utility>

#include "kscache/kscache_int.h"

using namespace kspool;

namespace {

/// Calls back for each entry until the callback asks to stop. The callback may add and delete
/// entries, so each slot's refCount, and the link to the next page, are read only when they are
/// reached.
void walk(KSCache* cache, KSCacheIterateCallback callback, void* arg) {
    for (KSCachePage* page = cache->firstPage; page != nullptr; page = page->next) {
        for (KSCacheNode* slot = slotsOf(page).data(); slot < page->end; ++slot) {
            if (slot->refCount == 0) continue;
            if (callback(cache, slot, slot->value, 0, arg) != 0) return;
        }
    }
}

}  // namespace

uint32_t KSCacheIterate(KSCache* cache, KSCacheIterateCallback callback, void* arg) noexcept {
    if (const uint32_t bad = checkHandle(cache)) return bad;
    if (callback == nullptr) return CR_STATUS_INVALID_PARAMETER;
    // A nested walk puts `busy` back to 1, not to 0: the outer one still needs it.
    const uint32_t outer = std::exchange(cache->busy, 1);
    walk(cache, callback, arg);
    cache->busy = outer;
    return CR_STATUS_OK;
}
