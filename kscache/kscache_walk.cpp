// The walk over all entries.
#include <utility>

#include "kscache/kscache_int.h"

using namespace kspool;

namespace {

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

uint32_t KSCacheIterate(KSCache* cache, KSCacheIterateCallback callback, void* arg) noexcept {
    if (const uint32_t bad = checkHandle(cache)) return bad;
    if (callback == nullptr) return CR_STATUS_INVALID_PARAMETER;
    const uint32_t outer = std::exchange(cache->busy, 1);
    walk(cache, callback, arg);
    cache->busy = outer;
    return CR_STATUS_OK;
}
