// Random operations on a cache beside the same ones on a plain map.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>

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
};

class CacheModel : public testing::TestWithParam<Setup> {
  protected:
    void SetUp() override {
        scripted::reset();
        calls::watch();
        calls::place(GetParam().placement);
        const char* given = getenv("KSPOOL_TEST_SEED");
        seed_ = given != nullptr ? std::strtoull(given, nullptr, 0) : std::random_device()();
        random_.seed(seed_);
        cache_ = KSCacheCreate(0, GetParam().bits, 0, called, &callbacks_);
    }
    void TearDown() override {
        KSCacheDestroy(cache_);
        EXPECT_EQ(calls::live(), 0U);
        calls::leaveAlone();
    }

    static void called(void*, void* arg) { ++*static_cast<uint64_t*>(arg); }

    uint64_t below(uint64_t limit) { return random_() % limit; }

    /// Keys that meet often and share their beginnings: few differing bytes, many types.
    Bytes randomKey() {
        Bytes key(32, 0x5a);
        key[below(2) * 7] = static_cast<uint8_t>(below(7));  // in the first word
        key[8] = static_cast<uint8_t>(below(3));
        key[12] = static_cast<uint8_t>(below(24));  // selects the tree
        key[15] = static_cast<uint8_t>(below(2));
        key[16 + below(2) * 15] = static_cast<uint8_t>(below(5));  // counts for type 3 only
        return key;
    }

    static Identity identity(const Bytes& key, uint32_t type) {
        const auto low = static_cast<uint8_t>(type);
        return {low, Bytes(key.begin(), key.begin() + (low == 3 ? 32 : 16))};
    }

    void add(const Bytes& key, uint32_t type) {
        const uint64_t value = random_();
        void* const arg = below(2) != 0 ? this : nullptr;
        const auto [entry, isNew] = model_.try_emplace(identity(key, type), Entry{value, 1});
        if (!isNew) {
            entry->second.refCount = std::min<uint64_t>(entry->second.refCount + 1, 16383);
            ++hits_;
            expectedCallbacks_ += arg != nullptr ? 1 : 0;
        }
        // As many bytes as the type has, so that a sanitizer sees whoever reads more.
        const Bytes exact = identity(key, type).second;
        EXPECT_EQ(KSCacheAdd(cache_, exact.data(), type, value, arg), isNew ? 0U : 1U);
    }

    void lookup(const Bytes& key, uint32_t type, bool counted) {
        uint64_t value = 4711;
        const Bytes exact = identity(key, type).second;
        const auto entry = model_.find(identity(key, type));
        const bool known = entry != model_.end();
        const uint32_t status = counted ? KSCacheExists(cache_, exact.data(), type, &value)
                                        : KSCacheFetch(cache_, exact.data(), type, &value);
        ASSERT_EQ(status, known ? 0U : 2U);
        EXPECT_EQ(value, known ? entry->second.value : 4711);
        if (!counted) return;
        ++(known ? hits_ : misses_);
        if (known) {
            entry->second.refCount = std::min<uint64_t>(entry->second.refCount + 1, 16383);
        }
    }

    void reset() {
        KSCacheReset(cache_);
        model_.clear();
        hits_ = misses_ = 0;
    }

    /// Every slot that counts as used holds an entry of the model, with its value and count.
    void compareAll() {
        size_t used = 0;
        for (const KSCachePage* page = cache_->firstPage; page != nullptr; page = page->next) {
            const auto* slot = reinterpret_cast<const KSCacheNode*>(page) + 1;
            for (; slot < page->end; ++slot) {
                if (slot->refCount == 0) continue;
                ++used;
                const Bytes key(slot->fingerprint, slot->fingerprint + 32);
                const auto entry = model_.find(identity(key, slot->type));
                ASSERT_NE(entry, model_.end());
                EXPECT_EQ(slot->value, entry->second.value);
                EXPECT_EQ(slot->refCount, entry->second.refCount);
            }
        }
        EXPECT_EQ(used, model_.size());
    }

    void compareCounters() {
        KSCacheStatsRecord stats{};
        ASSERT_EQ(KSCacheStats(cache_, &stats), 0U);
        EXPECT_EQ(stats.cachedItems, model_.size());
        EXPECT_EQ(stats.hits, hits_);
        EXPECT_EQ(stats.misses, misses_);
        EXPECT_EQ(callbacks_, expectedCallbacks_);
    }

    uint64_t seed_ = 0;
    std::mt19937_64 random_;
    KSCache* cache_ = nullptr;
    std::map<Identity, Entry> model_;
    uint64_t hits_ = 0, misses_ = 0, callbacks_ = 0, expectedCallbacks_ = 0;
};

TEST_P(CacheModel, AgreesAfterEachStep) {
    SCOPED_TRACE("KSPOOL_TEST_SEED=" + std::to_string(seed_));
    constexpr uint32_t kTypes[] = {1, 2, 3, 3, 0x103, 7};
    for (int step = 0; step < 12000 && !HasFailure(); ++step) {
        const Bytes key = randomKey();
        const uint32_t type = kTypes[below(std::size(kTypes))];
        const uint64_t what = below(4000);
        if (what == 0) {
            reset();
        } else if (what < 2000) {
            add(key, type);
        } else {
            lookup(key, type, what % 2 == 0);
        }
        compareCounters();
        if (step < 500 || step % 97 == 0) {
            ASSERT_EQ(brokenInvariant(cache_), "") << "step " << step;
            compareAll();
        }
    }
}

using calls::Placement;
INSTANTIATE_TEST_SUITE_P(Shapes, CacheModel,
                         testing::Values(Setup{"deep", 1, Placement::AsAsked},
                                         Setup{"descending", 2, Placement::Descending},
                                         Setup{"scattered", 4, Placement::Scattered},
                                         Setup{"shallow", 12, Placement::AsAsked}),
                         [](const auto& given) { return given.param.name; });

}  // namespace
