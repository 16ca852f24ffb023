#include "tools/agent/cache.h"

#include <algorithm>
#include <filesystem>
#include <utility>

#include "platform/status.h"
#include "tools/shared/failure.h"

namespace agent {
namespace {

constexpr uint64_t kFewestPages = 12;

/// Slots of a page, so that the limit has room for a dozen pages: memory is counted in whole pages.
uint64_t mostSlots(uint64_t limit) {
    return limit / sizeof(KSCacheNode) / kFewestPages;
}

/// Deletes the entries for which `drops` returns true.
template <typename Drops>
void drop(KSCache* cache, Drops drops) {
    const auto visit = [](KSCache* walked, KSCacheNode* node, uint64_t, int, void* which) {
        if ((*static_cast<Drops*>(which))(*node))
            KSCacheDelete(walked, node->fingerprint, node->type);
        return 0;
    };
    KSCacheIterate(cache, visit, &drops);
}

}  // namespace

BackupCache::BackupCache(std::string path, uint64_t limit, uint64_t segments)
    : path_(std::move(path)), limit_(limit) {
    const tool::CacheSettings settings = tool::settingsFor(segments, mostSlots(limit));
    cache_.reset(KSCacheCreate(settings.areaSize, settings.bits, 0, nullptr, nullptr));
    if (cache_ == nullptr) throw tool::Failure("no cache could be made");
    if (path_.empty()) return;
    KSCacheHold* hold = nullptr;
    const uint32_t status = KSCacheHoldFile(path_.c_str(), &hold);
    if (status != CR_STATUS_OK) fail(tool::whyNotReplaced(path_, status));
    hold_.reset(hold);
}

std::optional<std::string> BackupCache::load() {
    if (path_.empty() || !std::filesystem::exists(path_)) return {};
    const uint32_t status = KSCacheLoad(cache_.get(), path_.c_str(), nullptr);
    if (status != CR_STATUS_OK) return CRStatusToStringA(status);
    return {};
}

void BackupCache::remember(const std::vector<KSCacheKey>& keys, uint64_t value) {
    const std::vector<uint64_t> values(keys.size(), value);
    const size_t count = std::min<size_t>(keys.size(), room());
    full_ = full_ || count < keys.size();
    KSCacheAddBatch(cache_.get(), keys.data(), values.data(), nullptr, count, nullptr);
    // Raises the counts above those of entries that were only loaded.
    KSCacheExistsBatch(cache_.get(), keys.data(), count, nullptr, nullptr);
}

void BackupCache::save(bool sawAll) {
    if (path_.empty()) return;
    if (full_ || stats().cacheSize > limit_) makeRoom(sawAll);
    const uint32_t status = KSCacheReplaceFile(cache_.get(), path_.c_str(), hold_.get(), nullptr);
    if (status != CR_STATUS_OK)
        fail("could not be replaced: " + tool::whyNotReplaced(path_, status));
}

void BackupCache::fail(const std::string& why) const {
    throw tool::Failure(path_ + ": " + why);
}

KSCacheStatsRecord BackupCache::stats() const {
    KSCacheStatsRecord stats{};
    KSCacheStats(cache_.get(), &stats);
    return stats;
}

/// Entries that can be added before a page exceeds the limit.
uint64_t BackupCache::room() const {
    const KSCacheStatsRecord s = stats();
    const uint64_t page = uint64_t{s.areaSize} * s.nodeSize;
    const uint64_t pages = s.cacheSize < limit_ ? (limit_ - s.cacheSize) / page : 0;
    return s.freeListCount + s.nodesAvailable + pages * (s.areaSize - 1);
}

/// Drops the entries that a whole run did not meet; then any entries, in case the limit is lower
/// than in the run before.
void BackupCache::makeRoom(bool sawAll) {
    if (sawAll) drop(cache_.get(), [](const KSCacheNode& node) { return node.refCount == 1; });
    const uint64_t fit = limit_ / stats().nodeSize, items = stats().cachedItems;
    uint64_t excess = items > fit ? items - fit : 0;
    drop(cache_.get(), [&](const KSCacheNode&) { return excess > 0 && excess-- > 0; });
    KSCacheReclaim(cache_.get());
}

}  // namespace agent
