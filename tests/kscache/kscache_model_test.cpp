// Random operations on a cache beside the same ones on a plain map.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <random>
#include <set>

#include "kscache/kscache_int.h"
#include "tests/support/cache_invariants.h"
#include "tests/support/scripted_platform.h"
#include "tests/support/system_calls.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Identity = std::pair<uint8_t, Bytes>;  // type, and as many bytes as the type counts

struct Entry {
    uint64_t value;
    uint64_t refCount;
};

struct Setup {
    const char* name;
    uint32_t bits;
    calls::Placement placement;
    KSCacheAddCallback callback;
};

/// Counts calls.
void called(void*, void* arg) {
    ++*static_cast<uint64_t*>(arg);
}

class CacheModel : public testing::TestWithParam<Setup> {
  public:
    void SetUp() override {
        scripted::reset();
        calls::watch();
        calls::place(GetParam().placement);
        const char* given = getenv("KSPOOL_TEST_SEED");
        seed_ = given != nullptr ? std::strtoull(given, nullptr, 0) : std::random_device()();
        random_.seed(seed_);
        cache_ = KSCacheCreate(0, GetParam().bits, 0, GetParam().callback, &callbacks_);
    }
    void TearDown() override {
        KSCacheDestroy(cache_);
        EXPECT_EQ(calls::live(), 0U);
        calls::leaveAlone();
    }

    uint64_t below(uint64_t limit) { return random_() % limit; }

    /// Keys that meet often and share their beginnings: few differing bytes, many types.
    Bytes randomKey() {
        Bytes key(32, 0x5a);
        key[below(2) * 7] = static_cast<uint8_t>(below(7));  // in the first word
        key[8] = static_cast<uint8_t>(below(12));
        key[12] = static_cast<uint8_t>(below(24));  // selects the tree
        key[15] = static_cast<uint8_t>(below(2));
        key[16 + below(2) * 15] = static_cast<uint8_t>(below(5));  // counts for type 3 only
        return key;
    }

    static Identity identity(const Bytes& key, uint32_t type) {
        const auto low = static_cast<uint8_t>(type);
        return {low, Bytes(key.begin(), key.begin() + (low == 3 ? 32 : 16))};
    }

    /// A key that must stay while it is used, with as many bytes as its type has, so that a
    /// sanitizer sees whoever reads more.
    KSCacheKey randomCacheKey() {
        constexpr uint32_t kTypes[] = {1, 2, 3, 3, 0x103, 7};
        const uint32_t type = kTypes[below(std::size(kTypes))];
        keys_.push_back(identity(randomKey(), type).second);
        return {keys_.back().data(), type};
    }
    static Identity identity(const KSCacheKey& key) {
        const auto* bytes = static_cast<const uint8_t*>(key.fingerprint);
        const bool isLong = static_cast<uint8_t>(key.type) == 3;
        return identity(Bytes(bytes, bytes + (isLong ? 32 : 16)), key.type);
    }

    /// What the model says that an operation returns, having done it.
    uint32_t added(const KSCacheKey& key, uint64_t value, bool withArg) {
        const auto [entry, isNew] = model_.try_emplace(identity(key), Entry{value, 1});
        if (isNew) return CR_STATUS_OK;
        entry->second.refCount = std::min<uint64_t>(entry->second.refCount + 1, 16383);
        ++hits_;
        expectedCallbacks_ += withArg && GetParam().callback != nullptr ? 1 : 0;
        return CR_STATUS_EXISTS;
    }
    uint32_t found(const KSCacheKey& key, bool counted, uint64_t& value) {
        const auto entry = model_.find(identity(key));
        const bool known = entry != model_.end();
        if (known) value = entry->second.value;
        if (counted) ++(known ? hits_ : misses_);
        if (counted && known) {
            entry->second.refCount = std::min<uint64_t>(entry->second.refCount + 1, 16383);
        }
        return known ? CR_STATUS_OK : CR_STATUS_NOT_FOUND;
    }

    void add() {
        const KSCacheKey key = randomCacheKey();
        const uint64_t value = random_();
        void* const arg = below(2) != 0 ? this : nullptr;
        const uint32_t expected = added(key, value, arg != nullptr);
        EXPECT_EQ(KSCacheAdd(cache_, key.fingerprint, key.type, value, arg), expected);
    }

    void lookup() {
        const KSCacheKey key = randomCacheKey();
        uint64_t value = 4711, expectedValue = 4711;
        const bool counted = below(2) != 0;
        const uint32_t expected = found(key, counted, expectedValue);
        EXPECT_EQ(counted ? KSCacheExists(cache_, key.fingerprint, key.type, &value)
                          : KSCacheFetch(cache_, key.fingerprint, key.type, &value),
                  expected);
        EXPECT_EQ(value, expectedValue);
    }

    void remove() {
        const KSCacheKey key = randomCacheKey();
        const bool known = model_.erase(identity(key)) != 0;
        EXPECT_EQ(KSCacheDelete(cache_, key.fingerprint, key.type), known ? 0U : 2U);
    }

    /// Batches are the single calls in their order: keys come twice in them, and are new together.
    void batch() {
        const size_t count = below(900);
        std::vector<KSCacheKey> keys;
        std::vector<uint64_t> values, expectedValues;
        std::vector<uint32_t> statuses(count), expected;
        std::vector<void*> args;
        for (size_t i = 0; i < count; ++i) {
            keys.push_back(i > 0 && below(9) == 0 ? keys[below(i)] : randomCacheKey());
            values.push_back(random_());
            args.push_back(below(2) != 0 ? this : nullptr);
        }
        expectedValues = values;
        const uint64_t what = below(3);
        const bool withArgs = below(2) != 0, withValues = what == 0 || below(4) != 0;
        for (size_t i = 0; i < count; ++i) {
            expected.push_back(what == 0 ? added(keys[i], values[i], withArgs && args[i] != nullptr)
                                         : found(keys[i], what == 1, expectedValues[i]));
        }
        uint32_t* const out = below(4) != 0 ? statuses.data() : nullptr;
        uint64_t* const valuesOut = withValues ? values.data() : nullptr;
        EXPECT_EQ(what == 0   ? KSCacheAddBatch(cache_, keys.data(), values.data(),
                                              withArgs ? args.data() : nullptr, count, out)
                  : what == 1 ? KSCacheExistsBatch(cache_, keys.data(), count, valuesOut, out)
                              : KSCacheFetchBatch(cache_, keys.data(), count, valuesOut, out),
                  0U);
        EXPECT_TRUE(!withValues || values == expectedValues);
        EXPECT_TRUE(out == nullptr || statuses == expected);
    }

    /// A walk that meets each entry once, deletes some, and adds none that it knows.
    static int onEntry(KSCache* cache, KSCacheNode* node, uint64_t, int, void* arg) {
        auto* self = static_cast<CacheModel*>(arg);
        const Identity met = identity({node->fingerprint, node->type});
        EXPECT_TRUE(self->met_.insert(met).second);
        if (self->below(5) != 0) return 0;
        EXPECT_EQ(KSCacheDelete(cache, node->fingerprint, node->type), 0U);
        return self->model_.erase(met) == 1 ? 0 : 1;
    }
    void walk() {
        const size_t entries = model_.size();
        met_.clear();
        EXPECT_EQ(KSCacheIterate(cache_, onEntry, this), 0U);
        EXPECT_EQ(met_.size(), entries);
    }

    /// Counts are not kept in the file; everything else is.
    void restart() {
        const std::string path = testing::TempDir() + "model-" + GetParam().name;
        uint64_t saved = 0, loaded = 0;
        constexpr uint64_t kPieces[] = {40, 5000, 100000};  // of records, of blocks, of files
        calls::cutTransfers(1 + below(kPieces[below(3)]));
        EXPECT_EQ(KSCacheSave(cache_, path.c_str(), &saved), 0U);
        KSCacheReset(cache_);
        hits_ = misses_ = 0;
        for (auto& [key, entry] : model_)
            entry.refCount = 1;
        EXPECT_EQ(KSCacheLoad(cache_, path.c_str(), &loaded), model_.empty() ? 1002U : 0U);
        calls::cutTransfers(SIZE_MAX);
        EXPECT_EQ(saved, model_.size());
        EXPECT_EQ(loaded, model_.size());
        scripted::takeRecord();
    }

    /// Drops what the rule says, told once more: by sorting all counts.
    void limit() {
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
        const bool reclaims = above && cache_->freeListCount + cache_->cachedItems >=
                                           model_.size() + cache_->areaSize;
        const bool hadPages = cache_->pageCount > 0;
        EXPECT_EQ(KSCacheCheck(cache_, 1), 0U);
        forgetCountsWithLastPage(hadPages);
        const uint64_t page = cache_->areaSize * 72;
        if (reclaims && GetParam().placement == calls::Placement::AsAsked) {
            EXPECT_LE(cache_->cacheSize, budget + budget / (cache_->areaSize - 1) + page);
        }
    }

    void reclaim() {
        const bool hadPages = cache_->pageCount > 0;
        EXPECT_EQ(KSCachePrune(cache_), cache_->freeListCount);
        KSCacheReclaim(cache_);
        forgetCountsWithLastPage(hadPages);
    }
    void forgetCountsWithLastPage(bool hadPages) {
        if (hadPages && cache_->pageCount == 0) hits_ = misses_ = 0;
    }

    void reset() {
        KSCacheReset(cache_);
        model_.clear();
        hits_ = misses_ = 0;
    }

    /// Every slot that counts as used holds an entry of the model, with its value and count.
    void compareAll() {
        size_t used = 0;
        for (KSCachePage* page = cache_->firstPage; page != nullptr; page = page->next) {
            for (const KSCacheNode& slot : kspool::slotsOf(page)) {
                if (slot.refCount == 0) continue;
                ++used;
                const auto entry = model_.find(identity({slot.fingerprint, slot.type}));
                ASSERT_NE(entry, model_.end());
                EXPECT_EQ(slot.value, entry->second.value);
                EXPECT_EQ(slot.refCount, entry->second.refCount);
            }
        }
        EXPECT_EQ(used, model_.size());
        EXPECT_EQ(cache_->cachedItems, model_.size());
        EXPECT_EQ(cache_->hits, hits_);
        EXPECT_EQ(cache_->misses, misses_);
        EXPECT_EQ(callbacks_, expectedCallbacks_);
    }

    uint64_t seed_ = 0;
    std::mt19937_64 random_;
    KSCache* cache_ = nullptr;
    std::map<Identity, Entry> model_;
    std::set<Identity> met_;
    std::deque<Bytes> keys_;
    uint64_t hits_ = 0, misses_ = 0, callbacks_ = 0, expectedCallbacks_ = 0;
};

TEST_P(CacheModel, AgreesAfterEachStep) {
    SCOPED_TRACE("KSPOOL_TEST_SEED=" + std::to_string(seed_));
    struct {
        uint64_t share;
        void (CacheModel::*operation)();
    } const kOperations[] = {
        {2000, &CacheModel::add},  {1000, &CacheModel::lookup}, {600, &CacheModel::remove},
        {500, &CacheModel::batch}, {4, &CacheModel::walk},      {4, &CacheModel::restart},
        {20, &CacheModel::limit},  {20, &CacheModel::reclaim},  {1, &CacheModel::reset},
    };
    for (int step = 0; step < 5000 && !HasFailure(); ++step) {
        uint64_t share = below(4149);
        const auto* row = kOperations;
        while (share >= row->share)
            share -= (row++)->share;
        (this->*row->operation)();
        keys_.clear();
        if (step < 200 || step % 97 == 0 || row->share < 100) {
            ASSERT_EQ(brokenInvariant(cache_), "") << "step " << step;
            compareAll();
        }
    }
}

using calls::Placement;
INSTANTIATE_TEST_SUITE_P(Shapes, CacheModel,
                         testing::Values(Setup{"deep", 1, Placement::AsAsked, called},
                                         Setup{"descending", 2, Placement::Descending, nullptr},
                                         Setup{"scattered", 4, Placement::Scattered, called},
                                         Setup{"shallow", 12, Placement::AsAsked, nullptr}),
                         [](const auto& given) { return given.param.name; });

}  // namespace
