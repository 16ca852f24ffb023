#include "tools/agent/cache.h"

#include <algorithm>
#include <filesystem>

#include "platform/status.h"

namespace agent {
namespace {

/// A page for a 200th of the segments, and at least a dozen within the limit.
uint32_t areaFor(uint64_t segments, uint64_t limit) {
    constexpr uint64_t kSmallest = 1024, kPages = 12, kNodeSize = sizeof(KSCacheNode);
    return static_cast<uint32_t>(
        std::max(kSmallest, std::min(segments / 200, limit / kNodeSize / kPages)));
}

/// Deletes the entries that `drops` tells.
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

BackupCache::BackupCache(const BackupOptions& options, uint64_t segments)
    : path_(options.cacheFile), limit_(uint64_t{options.limit} << 20) {
    const uint32_t bits = KSCacheBitsFor(std::max<uint64_t>(segments, 1));
    cache_.reset(KSCacheCreate(areaFor(segments, limit_), bits, 0, nullptr, nullptr));
}

std::string BackupCache::load() {
    if (path_.empty() || !std::filesystem::exists(path_)) return {};
    const uint32_t status = KSCacheLoad(cache_.get(), path_.c_str(), nullptr);
    return status == CR_STATUS_OK ? "" : CRStatusToStringA(status);
}

void BackupCache::remember(const std::vector<KSCacheKey>& keys, uint64_t value) {
    const std::vector<uint64_t> values(keys.size(), value);
    const size_t count = std::min<size_t>(keys.size(), room());
    full_ = full_ || count < keys.size();
    KSCacheAddBatch(cache_.get(), keys.data(), values.data(), nullptr, count, nullptr);
    // Counted once more than what was only loaded.
    KSCacheExistsBatch(cache_.get(), keys.data(), count, nullptr, nullptr);
}

std::string BackupCache::save(bool sawAll) {
    if (path_.empty()) return {};
    if (full_ || stats().cacheSize > limit_) makeRoom(sawAll);
    const std::string fresh = path_ + ".new";
    uint64_t count = 0;
    const uint32_t status = KSCacheSave(cache_.get(), fresh.c_str(), &count);
    if (status != CR_STATUS_OK) return CRStatusToStringA(status);
    std::error_code error;
    if (count == 0) {  // there is no file of nothing
        std::filesystem::remove(path_, error);
        return error ? error.message() : "";
    }
    // A save does not tell of a full disk.
    const uint64_t length = std::filesystem::file_size(fresh, error);
    if (!error && length < count * tool::kRecordSize) {
        std::filesystem::remove(fresh, error);
        return "the new cache could not be written as a whole; the old one is kept";
    }
    if (!error) std::filesystem::rename(fresh, path_, error);
    return error ? error.message() : "";
}

KSCacheStatsRecord BackupCache::stats() const {
    KSCacheStatsRecord stats{};
    KSCacheStats(cache_.get(), &stats);
    return stats;
}

/// Entries that can be added without a page too many.
uint64_t BackupCache::room() const {
    const KSCacheStatsRecord s = stats();
    const uint64_t page = uint64_t{s.areaSize} * s.nodeSize;
    const uint64_t pages = s.cacheSize < limit_ ? (limit_ - s.cacheSize) / page : 0;
    return s.freeListCount + s.nodesAvailable + pages * (s.areaSize - 1);
}

/// Drops what a whole run did not come across; then anything, should the limit be lower than it
/// was.
void BackupCache::makeRoom(bool sawAll) {
    if (sawAll) drop(cache_.get(), [](const KSCacheNode& node) { return node.refCount == 1; });
    const uint64_t fit = limit_ / stats().nodeSize, items = stats().cachedItems;
    uint64_t excess = items > fit ? items - fit : 0;
    drop(cache_.get(), [&](const KSCacheNode&) { return excess > 0 && excess-- > 0; });
    KSCacheReclaim(cache_.get());
}

}  // namespace agent
