#include "tools/cache/contents.h"

#include <algorithm>
#include <array>
#include <exception>
#include <stdexcept>

#include "platform/status.h"

namespace cache {
namespace {

constexpr uint64_t kSmallestArea = 1024;
constexpr uint64_t kPagesWanted = 200;  ///< the unused end of the last is then half a percent

CachePointer makeCache(const Settings& settings) {
    CachePointer cache(KSCacheCreate(settings.areaSize, settings.bits, 0, nullptr, nullptr));
    if (cache == nullptr) throw std::runtime_error(CRStatusToStringA(*__cr_errno_location()));
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

/// No exception may pass through the library.
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

Settings settingsFor(uint64_t entries) {
    const uint64_t area =
        std::clamp<uint64_t>(entries / kPagesWanted, kSmallestArea, uint64_t{UINT32_MAX});
    return {KSCacheBitsFor(entries), static_cast<uint32_t>(area)};
}

uint64_t pagesFor(uint64_t entries, uint64_t pageSlots) {
    return (entries + pageSlots - 2) / (pageSlots - 1);
}

uint32_t roundedArea(uint32_t areaSize) {
    return statsOf(makeCache({1, areaSize}).get()).areaSize;
}

Loaded load(const FileReport& file, const Settings& settings) {
    Loaded loaded{makeCache(settings), {}};
    uint64_t count = 0;
    const uint32_t status = KSCacheLoad(loaded.cache.get(), file.path.c_str(), &count);
    if (status != CR_STATUS_OK)
        throw std::runtime_error(file.name + ": " + CRStatusToStringA(status));
    if (count != file.records) throw std::runtime_error(file.name + ": changed while it was read");
    loaded.stats = statsOf(loaded.cache.get());
    // A record is an entry, or a hit on one; the library does not count those without memory.
    if (loaded.stats.cachedItems + loaded.stats.hits != count)
        throw std::runtime_error(file.name + ": not enough memory for its entries");
    return loaded;
}

void forEachEntry(KSCache* cache, const std::function<bool(const KSCacheNode&)>& visit) {
    Walk walk{visit, nullptr};
    KSCacheIterate(cache, visitNode, &walk);
    if (walk.failure) std::rethrow_exception(walk.failure);
}

std::string digestText(const KSCacheNode& entry) {
    std::array<char, 2 * sizeof entry.fingerprint + 1> text{};
    return CRFPDigestToString_r(entry.fingerprint, entry.type, text.data(), text.size());
}

}  // namespace cache
