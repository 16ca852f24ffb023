#include "tools/agent/cache.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "platform/status.h"
#include "tools/shared/failure.h"

namespace agent {
namespace {

template <typename Visit>
void each(KSCache* cache, Visit visit) {
    const auto call = [](KSCache*, KSCacheNode* node, uint64_t, int, void* which) {
        (*static_cast<Visit*>(which))(*node);
        return 0;
    };
    KSCacheIterate(cache, call, &visit);
}

/// Deletes the entries for which `drops` returns true.
template <typename Drops>
void drop(KSCache* cache, Drops drops) {
    each(cache, [&](const KSCacheNode& node) {
        if (drops(node)) KSCacheDelete(cache, node.fingerprint, node.type);
    });
}

/// The finaliser of MurmurHash3: each bit of the input changes half of the output.
uint64_t mixed(uint64_t word) {
    word = (word ^ (word >> 33)) * 0xff51afd7ed558ccd;
    word = (word ^ (word >> 33)) * 0xc4ceb9fe1a85ec53;
    return word ^ (word >> 33);
}

uint64_t hashOf(const KSCacheNode& node) {
    const size_t bytes = node.type == CR_FP_SHA256 ? 32 : 16;  // the rest is unspecified
    std::array<uint64_t, 4> words{};
    memcpy(words.data(), node.fingerprint, bytes);
    uint64_t hash = mixed(node.value ^ (uint64_t{node.type} << 56));
    for (const uint64_t word : words)
        hash = mixed(hash ^ word);
    return hash;
}

}  // namespace

BlockCache::BlockCache(uint64_t entries, uint64_t limit) : limit_(limit) {
    const tool::CacheSettings settings = tool::settingsFor(entries, limit);
    cache_.reset(KSCacheCreate(settings.areaSize, settings.bits, 0, nullptr, nullptr));
    if (cache_ == nullptr) throw tool::Failure("no cache could be made");
}

KSCacheStatsRecord BlockCache::stats() const {
    KSCacheStatsRecord stats{};
    KSCacheStats(cache_.get(), &stats);
    return stats;
}

std::optional<std::string> BlockCache::load(const HeldFile& file) {
    if (file.size() == 0) return {};
    const uint32_t status = KSCacheLoad(cache_.get(), file.path().c_str(), nullptr);
    if (status == CR_STATUS_OK) return {};
    clear();
    return CRStatusToStringA(status);
}

std::string BlockCache::sum() const {
    uint64_t first = 0, second = 0, entries = 0;
    each(cache_.get(), [&](const KSCacheNode& node) {
        const uint64_t hash = hashOf(node);
        first += hash;
        second += mixed(hash + 1);
        ++entries;
    });
    if (entries == 0) return kNoEntries;
    std::array<char, 64> text{};
    snprintf(text.data(), text.size(), "%016llx%016llx-%llu",
             static_cast<unsigned long long>(first), static_cast<unsigned long long>(second),
             static_cast<unsigned long long>(entries));
    return text.data();
}

std::map<uint64_t, uint64_t> BlockCache::ties() const {
    std::map<uint64_t, uint64_t> counts;
    each(cache_.get(), [&](const KSCacheNode& node) { ++counts[node.value]; });
    return counts;
}

std::set<uint64_t> BlockCache::metValues() const {
    std::set<uint64_t> values;
    each(cache_.get(), [&](const KSCacheNode& node) {
        if (node.refCount > 1) values.insert(node.value);
    });
    return values;
}

void BlockCache::keep(const std::set<uint64_t>& values) {
    drop(cache_.get(), [&](const KSCacheNode& node) { return values.count(node.value) == 0; });
}

void BlockCache::remember(const std::vector<KSCacheKey>& keys, uint64_t value) {
    const std::vector<uint64_t> values(keys.size(), value);
    const size_t count = std::min<size_t>(keys.size(), room());
    leftOut_ += keys.size() - count;
    KSCacheAddBatch(cache_.get(), keys.data(), values.data(), nullptr, count, nullptr);
    // Raises the counts above those of entries that were only loaded.
    KSCacheExistsBatch(cache_.get(), keys.data(), count, nullptr, nullptr);
}

/// Entries that can be added before a page exceeds the limit.
uint64_t BlockCache::room() const {
    const KSCacheStatsRecord s = stats();
    const uint64_t page = uint64_t{s.areaSize} * s.nodeSize;
    const uint64_t pages = s.cacheSize < limit_ ? (limit_ - s.cacheSize) / page : 0;
    return s.freeListCount + s.nodesAvailable + pages * (s.areaSize - 1);
}

void BlockCache::makeRoom() {
    if (leftOut_ == 0 && stats().cacheSize <= limit_) return;
    const uint64_t fit = limit_ / stats().nodeSize;
    dropSurplus(fit - std::min(leftOut_, fit), /*met=*/false);
    dropSurplus(fit, /*met=*/true);  // in case the limit is lower than in the run before
    KSCacheReclaim(cache_.get());
}

/// Drops entries until at most `most` are left. Entries that the run met are dropped only if `met`.
void BlockCache::dropSurplus(uint64_t most, bool met) {
    const uint64_t items = stats().cachedItems;
    uint64_t surplus = items > most ? items - most : 0;
    drop(cache_.get(), [&](const KSCacheNode& node) {
        return surplus > 0 && (met || node.refCount == 1) && surplus-- > 0;
    });
}

/// The value of an entry cannot be changed, so the entry is deleted and added again. The add reuses
/// the slot that the deletion freed, which the walk has passed, so no entry is visited twice.
void BlockCache::tieMet(uint64_t value) {
    KSCache* cache = cache_.get();
    each(cache, [&](const KSCacheNode& node) {
        if (node.refCount == 1 || node.value == value) return;
        const KSCacheNode copy = node;
        KSCacheDelete(cache, copy.fingerprint, copy.type);
        KSCacheAdd(cache, copy.fingerprint, copy.type, value, nullptr);
    });
}

}  // namespace agent
