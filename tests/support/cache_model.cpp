#include "tests/support/cache_model.h"

#include <unistd.h>

#include <algorithm>

#include "kscache/kscache_int.h"
#include "tests/support/cache_invariants.h"
#include "tests/support/must.h"

namespace {

/// Counts calls.
void called(void*, void* arg) {
    ++*static_cast<uint64_t*>(arg);
}

}  // namespace

const CacheModel::Operation CacheModel::kOperations[] = {
    {2000, &CacheModel::add, false},   {1000, &CacheModel::lookup, false},
    {600, &CacheModel::remove, false}, {500, &CacheModel::batch, false},
    {4, &CacheModel::walk, true},      {4, &CacheModel::restart, true},
    {20, &CacheModel::limit, true},    {20, &CacheModel::reclaim, true},
    {1, &CacheModel::reset, true},
};

CacheModel::CacheModel(Source below, std::string path, uint32_t bits, Repeats repeats,
                       bool pagesAscend)
    : below_(std::move(below)),
      path_(std::move(path)),
      pagesAscend_(pagesAscend),
      tellsRepeats_(repeats == Repeats::Told),
      cache_(KSCacheCreate(0, bits, 0, tellsRepeats_ ? called : nullptr, &callbacks_)) {
    MUST(cache_ != nullptr);
}

CacheModel::~CacheModel() {
    KSCacheDestroy(cache_);
    unlink(path_.c_str());
}

bool CacheModel::step() {
    constexpr uint64_t kShares = 4149;
    uint64_t share = below_(kShares);
    const Operation* row = kOperations;
    while (share >= row->share)
        share -= (row++)->share;
    (this->*row->work)();
    keys_.clear();
    return row->changesMuch;
}

void CacheModel::compareAll() const {
    const std::string broken = brokenInvariant(cache_);
    if (!broken.empty()) brokenCondition(broken.c_str(), __FILE__, __LINE__);
    size_t used = 0;
    for (KSCachePage* page = cache_->firstPage; page != nullptr; page = page->next) {
        for (const KSCacheNode& slot : kspool::slotsOf(page)) {
            if (slot.refCount == 0) continue;
            ++used;
            const auto entry = model_.find(identity({slot.fingerprint, slot.type}));
            MUST(entry != model_.end());
            MUST(slot.value == entry->second.value);
            MUST(slot.refCount == entry->second.refCount);
        }
    }
    MUST(used == model_.size());
    MUST(cache_->cachedItems == model_.size());
    MUST(cache_->hits == hits_);
    MUST(cache_->misses == misses_);
    MUST(callbacks_ == expectedCallbacks_);
}

/// Keys that meet often and share their beginnings: few differing bytes, many types.
CacheModel::Bytes CacheModel::randomKey() {
    Bytes key(32, 0x5a);
    key[below_(2) * 7] = static_cast<uint8_t>(below_(7));  // in the first word
    key[8] = static_cast<uint8_t>(below_(12));
    key[12] = static_cast<uint8_t>(below_(24));  // selects the tree
    key[15] = static_cast<uint8_t>(below_(2));
    key[16 + below_(2) * 15] = static_cast<uint8_t>(below_(5));  // counts for type 3 only
    return key;
}

/// A key that must stay while it is used, with as many bytes as its type has, so that a sanitizer
/// sees whoever reads more.
KSCacheKey CacheModel::randomCacheKey() {
    constexpr uint32_t kTypes[] = {1, 2, 3, 3, 0x103, 7};
    ++operations_;
    const uint32_t type = kTypes[below_(std::size(kTypes))];
    const Bytes whole = randomKey();
    keys_.push_back(identity({whole.data(), type}).second);
    return {keys_.back().data(), type};
}

CacheModel::Identity CacheModel::identity(const KSCacheKey& key) {
    const auto* bytes = static_cast<const uint8_t*>(key.fingerprint);
    const auto low = static_cast<uint8_t>(key.type);
    return {low, Bytes(bytes, bytes + (low == 3 ? 32 : 16))};
}

/// What an add returns, as the model has it, which has done it then.
uint32_t CacheModel::added(const KSCacheKey& key, uint64_t value, bool withArg) {
    const auto [entry, isNew] = model_.try_emplace(identity(key), Entry{value, 1});
    if (isNew) return CR_STATUS_OK;
    entry->second.refCount = std::min<uint64_t>(entry->second.refCount + 1, 16383);
    ++hits_;
    expectedCallbacks_ += withArg && tellsRepeats_ ? 1 : 0;
    return CR_STATUS_EXISTS;
}

uint32_t CacheModel::found(const KSCacheKey& key, bool counted, uint64_t& value) {
    const auto entry = model_.find(identity(key));
    const bool known = entry != model_.end();
    if (known) value = entry->second.value;
    if (counted) ++(known ? hits_ : misses_);
    if (counted && known) {
        entry->second.refCount = std::min<uint64_t>(entry->second.refCount + 1, 16383);
    }
    return known ? CR_STATUS_OK : CR_STATUS_NOT_FOUND;
}

void CacheModel::add() {
    const KSCacheKey key = randomCacheKey();
    const uint64_t value = ++lastValue_;
    void* const arg = below_(2) != 0 ? this : nullptr;
    const uint32_t expected = added(key, value, arg != nullptr);
    MUST(KSCacheAdd(cache_, key.fingerprint, key.type, value, arg) == expected);
}

void CacheModel::lookup() {
    const KSCacheKey key = randomCacheKey();
    uint64_t value = 4711, expectedValue = 4711;
    const bool counted = below_(2) != 0;
    const uint32_t expected = found(key, counted, expectedValue);
    MUST((counted ? KSCacheExists(cache_, key.fingerprint, key.type, &value)
                  : KSCacheFetch(cache_, key.fingerprint, key.type, &value)) == expected);
    MUST(value == expectedValue);
}

void CacheModel::remove() {
    const KSCacheKey key = randomCacheKey();
    const bool known = model_.erase(identity(key)) != 0;
    MUST(KSCacheDelete(cache_, key.fingerprint, key.type) == (known ? 0U : 2U));
}

/// Batches are the single calls in their order: keys come twice in them, and are new together.
void CacheModel::batch() {
    const size_t count = below_(900);
    std::vector<KSCacheKey> keys;
    std::vector<uint64_t> values, expectedValues;
    std::vector<uint32_t> statuses(count), expected;
    std::vector<void*> args;
    for (size_t i = 0; i < count; ++i) {
        keys.push_back(i > 0 && below_(9) == 0 ? keys[below_(i)] : randomCacheKey());
        values.push_back(++lastValue_);
        args.push_back(below_(2) != 0 ? this : nullptr);
    }
    expectedValues = values;
    const uint64_t what = below_(3);
    const bool withArgs = below_(2) != 0, withValues = what == 0 || below_(4) != 0;
    for (size_t i = 0; i < count; ++i) {
        expected.push_back(what == 0 ? added(keys[i], values[i], withArgs && args[i] != nullptr)
                                     : found(keys[i], what == 1, expectedValues[i]));
    }
    uint32_t* const out = below_(4) != 0 ? statuses.data() : nullptr;
    uint64_t* const valuesOut = withValues ? values.data() : nullptr;
    MUST((what == 0   ? KSCacheAddBatch(cache_, keys.data(), values.data(),
                                      withArgs ? args.data() : nullptr, count, out)
          : what == 1 ? KSCacheExistsBatch(cache_, keys.data(), count, valuesOut, out)
                      : KSCacheFetchBatch(cache_, keys.data(), count, valuesOut, out)) == 0);
    MUST(!withValues || values == expectedValues);
    MUST(out == nullptr || statuses == expected);
}

/// A walk meets each entry once. What it deletes is not met any more; it adds nothing.
int CacheModel::onEntry(KSCache* cache, KSCacheNode* node, uint64_t, int, void* arg) {
    auto* self = static_cast<CacheModel*>(arg);
    const Identity met = identity({node->fingerprint, node->type});
    MUST(self->met_.insert(met).second);
    if (self->below_(5) != 1) return 0;
    MUST(KSCacheDelete(cache, node->fingerprint, node->type) == 0);
    return self->model_.erase(met) == 1 ? 0 : 1;
}

void CacheModel::walk() {
    const size_t entries = model_.size();
    met_.clear();
    MUST(KSCacheIterate(cache_, onEntry, this) == 0);
    MUST(met_.size() == entries);
}

/// Counts are not kept in the file; everything else is.
void CacheModel::restart() {
    uint64_t saved = 0, loaded = 0;
    MUST(KSCacheSave(cache_, path_.c_str(), &saved) == 0);
    KSCacheReset(cache_);
    hits_ = misses_ = 0;
    for (auto& [key, entry] : model_)
        entry.refCount = 1;
    MUST(KSCacheLoad(cache_, path_.c_str(), &loaded) == (model_.empty() ? 1002U : 0U));
    MUST(saved == model_.size());
    MUST(loaded == model_.size());
}

/// Drops what the rule says, told once more: by sorting all counts.
void CacheModel::limit() {
    const uint64_t budget = uint64_t{1} << 20;
    const bool above = cache_->cacheSize > budget;
    if (above) {
        std::vector<uint64_t> counts;
        for (const auto& [key, entry] : model_)
            counts.push_back(entry.refCount);
        std::sort(counts.rbegin(), counts.rend());
        const size_t fit = budget / 72;
        const uint64_t highest = counts.size() > fit ? counts[fit] : 0;
        std::erase_if(model_, [=](const auto& row) { return row.second.refCount <= highest; });
    }
    const bool reclaims =
        above && cache_->freeListCount + cache_->cachedItems >= model_.size() + cache_->areaSize;
    const bool hadPages = cache_->pageCount > 0;
    MUST(KSCacheCheck(cache_, 1) == 0);
    forgetCountsWithLastPage(hadPages);
    const uint64_t page = cache_->areaSize * 72;
    const uint64_t promised = budget + budget / (cache_->areaSize - 1) + page;
    MUST(!reclaims || !pagesAscend_ || cache_->cacheSize <= promised);
}

void CacheModel::reclaim() {
    const bool hadPages = cache_->pageCount > 0;
    MUST(KSCachePrune(cache_) == cache_->freeListCount);
    KSCacheReclaim(cache_);
    forgetCountsWithLastPage(hadPages);
}

void CacheModel::forgetCountsWithLastPage(bool hadPages) {
    if (hadPages && cache_->pageCount == 0) hits_ = misses_ = 0;
}

void CacheModel::reset() {
    KSCacheReset(cache_);
    model_.clear();
    hits_ = misses_ = 0;
}
