#include "tools/cache/contents.h"

#include <exception>

#include "platform/status.h"
#include "tools/shared/failure.h"

namespace cache {
namespace {

using tool::Failure;

CachePointer makeCache(const tool::CacheSettings& settings) {
    CachePointer cache(KSCacheCreate(settings.areaSize, settings.bits, 0, nullptr, nullptr));
    if (cache == nullptr) throw Failure(CRStatusToStringA(*__cr_errno_location()));
    return cache;
}

KSCacheStatsRecord statsOf(const KSCache* cache) {
    KSCacheStatsRecord stats{};
    KSCacheStats(cache, &stats);
    return stats;
}

struct Walk {
    const std::function<bool(const KSCacheNode&)>& visit;
    std::exception_ptr failure;
};

/// Stores an exception until the walk has ended, since none may pass through the library's C
/// functions.
int visitNode(KSCache* /*cache*/, KSCacheNode* node, uint64_t /*value*/, int /*reserved*/,
              void* arg) {
    auto* walk = static_cast<Walk*>(arg);
    try {
        return walk->visit(*node) ? 0 : 1;
    } catch (...) {
        walk->failure = std::current_exception();
        return 1;
    }
}

}  // namespace

uint64_t pagesFor(uint64_t entries, uint64_t pageSlots) {
    return (entries + pageSlots - 2) / (pageSlots - 1);
}

uint32_t roundedArea(uint32_t areaSize) {
    return statsOf(makeCache({1, areaSize}).get()).areaSize;
}

Loaded load(const FileReport& file, const tool::CacheSettings& settings) {
    Loaded loaded{makeCache(settings), {}};
    uint64_t count = 0;
    const uint32_t status = KSCacheLoad(loaded.cache.get(), file.path.c_str(), &count);
    if (status != CR_STATUS_OK) throw Failure(file.name + ": " + CRStatusToStringA(status));
    if (count != file.records) throw Failure(file.name + ": changed while it was read");
    loaded.stats = statsOf(loaded.cache.get());
    // Each record becomes an entry or a hit, unless memory is short; the library does not report
    // that otherwise.
    if (loaded.stats.cachedItems + loaded.stats.hits != count)
        throw Failure(file.name + ": not enough memory for its entries");
    return loaded;
}

void forEachEntry(KSCache* cache, const std::function<bool(const KSCacheNode&)>& visit) {
    Walk walk{visit, nullptr};
    KSCacheIterate(cache, visitNode, &walk);
    if (walk.failure) std::rethrow_exception(walk.failure);
}

}  // namespace cache
