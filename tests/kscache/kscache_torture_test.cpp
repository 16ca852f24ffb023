// The life of a cache under failing calls.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <map>
#include <vector>

#include "kscache/kscache_int.h"
#include "platform/status.h"
#include "tests/support/cache_invariants.h"
#include "tests/support/torture.h"

namespace {

constexpr uint32_t kNoMemory = 1012;

struct Scenario {
    const char* name;
    uint32_t areaSize, bits, lockPages, entries;
    enum { kFills, kFillsAgain, kGoesOn } then;
};

std::ostream& operator<<(std::ostream& out, const Scenario& scenario) {
    return out << scenario.name;
}

/// What a caller sees of a run must be right: a status for each call, and what was taken is there.
class Life {
  public:
    explicit Life(const Scenario& scenario) : s_(scenario) {}

    void go() {
        cache_ = KSCacheCreate(s_.areaSize, s_.bits, s_.lockPages, nullptr, nullptr);
        if (cache_ == nullptr) {
            EXPECT_EQ(*__cr_errno_location(), kNoMemory);
        } else {
            fill();
            if (s_.then == Scenario::kFillsAgain) {
                KSCacheReset(cache_);
                taken_.clear();
                fillByBatch();
            }
            if (s_.then == Scenario::kGoesOn) {
                drop();
                report();
                restart();
            }
        }
        KSCacheDestroy(cache_);
    }

  private:
    struct Words {
        uint32_t w[8];
    };
    /// In one root, each key sorts after the one before: in their order they make a chain.
    Words key(uint32_t i) const {
        return {{__builtin_bswap32(i), 0, 0, s_.bits > 1 ? i * 2654435761U : 0}};
    }

    /// All at once: each key's status tells what became of it, the first failure is returned.
    void fillByBatch() {
        std::vector<Words> words;
        std::vector<KSCacheKey> keys;
        std::vector<uint64_t> values;
        for (uint32_t i = 0; i < s_.entries; ++i) {
            words.push_back(key(i));
            values.push_back(i);
        }
        for (const Words& k : words)
            keys.push_back({k.w, 3});
        std::vector<uint32_t> statuses(keys.size(), 99);
        const uint32_t result = KSCacheAddBatch(cache_, keys.data(), values.data(), nullptr,
                                                keys.size(), statuses.data());
        for (uint32_t i = 0; i < s_.entries; ++i)
            taken_[i] = statuses[i] == CR_STATUS_OK;
        const bool all =
            std::all_of(taken_.begin(), taken_.end(), [](auto& t) { return t.second; });
        EXPECT_EQ(result, all ? 0 : kNoMemory);
        compare();
    }

    void fill() {
        for (uint32_t n = 0; n < s_.entries; ++n) {
            const uint32_t i = (n ^ 1) < s_.entries ? n ^ 1 : n;  // each second one hangs below
            const Words k = key(i);
            *__cr_errno_location() = 7;
            errno = EDOM;
            const uint32_t status = KSCacheAdd(cache_, k.w, 3, i, nullptr);
            EXPECT_TRUE(status == CR_STATUS_OK || status == kNoMemory) << status;
            EXPECT_EQ(*__cr_errno_location(), status == CR_STATUS_OK ? 7 : status);
            EXPECT_TRUE(errno == EDOM || status != CR_STATUS_OK || s_.lockPages != 0) << errno;
            taken_[i] = status == CR_STATUS_OK;
        }
        compare();
    }
    void compare() {
        ASSERT_EQ(brokenInvariant(cache_), "");
        for (const auto& [i, taken] : taken_) {
            uint64_t value = 0;
            const Words k = key(i);
            ASSERT_EQ(KSCacheFetch(cache_, k.w, 3, &value),
                      taken ? CR_STATUS_OK : CR_STATUS_NOT_FOUND);
            EXPECT_EQ(value, taken ? i : 0);
        }
    }

    /// Two thirds go, so that there is something to compact.
    void drop() {
        for (auto& [i, taken] : taken_) {
            const Words k = key(i);
            if (i % 3 == 0) continue;
            EXPECT_EQ(KSCacheDelete(cache_, k.w, 3), taken ? CR_STATUS_OK : CR_STATUS_NOT_FOUND);
            taken = false;
        }
        KSCacheReclaim(cache_);
        compare();
    }

    /// The sorted report is whole and sorted whatever memory there is.
    void report() {
        FILE* out = tmpfile();
        KSCacheDumpSorted(out, cache_);
        rewind(out);
        char line[200];
        unsigned long last = ULONG_MAX;
        size_t lines = 0;
        for (; fgets(line, sizeof line, out) != nullptr; ++lines) {
            unsigned long value = 0;
            if (sscanf(line, "%*s %*u %lu", &value) != 1) continue;
            EXPECT_TRUE(s_.bits > 1 || value < last) << line;
            last = value;
        }
        fclose(out);
        EXPECT_EQ(lines, cache_->cachedItems + 1);
    }

    /// What a load takes is right; a load that is refused takes nothing.
    void restart() {
        const std::string path = testing::TempDir() + "torture-" + s_.name;
        const uint32_t saved = KSCacheSave(cache_, path.c_str(), nullptr);
        EXPECT_TRUE(saved == CR_STATUS_OK || saved == kNoMemory) << saved;
        KSCacheReset(cache_);
        const uint32_t status = KSCacheLoad(cache_, path.c_str(), nullptr);
        EXPECT_TRUE(status == CR_STATUS_OK || cache_->pageCount == 0);
        size_t found = 0;
        for (auto& [i, taken] : taken_) {
            const Words k = key(i);
            const bool here = KSCacheFetch(cache_, k.w, 3, nullptr) == CR_STATUS_OK;
            EXPECT_TRUE(taken || !here) << i;
            taken = here;
            found += here ? 1 : 0;
        }
        EXPECT_EQ(found, cache_->cachedItems);
        compare();
        const bool whole = status == CR_STATUS_OK && found == (s_.entries + 2) / 3;
        EXPECT_TRUE(whole || calls::failures() > 0) << status << ", " << found;
        unlink(path.c_str());
    }

    const Scenario& s_;
    KSCache* cache_ = nullptr;
    std::map<uint32_t, bool> taken_;
};

class CacheTorture : public testing::TestWithParam<Scenario> {};

TEST_P(CacheTorture, EveryCallFailsInTurn) {
    torture::run([] { Life(GetParam()).go(); });
}

INSTANTIATE_TEST_SUITE_P(
    Scenarios, CacheTorture,
    testing::Values(Scenario{"create", 0, 20, 0, 0, Scenario::kFills},
                    Scenario{"growth", 0, 6, 0, 5000, Scenario::kFills},
                    Scenario{"lockedGrowth", 0, 6, 1, 3000, Scenario::kFills},
                    Scenario{"reset", 1080, 4, 0, 2500, Scenario::kFillsAgain},
                    Scenario{"lockedReset", 2000, 1, 1, 2100, Scenario::kFillsAgain},
                    Scenario{"hugePages", 40000, 19, 0, 40100, Scenario::kFills},
                    Scenario{"restart", 0, 6, 1, 4000, Scenario::kGoesOn},
                    Scenario{"deep", 0, 1, 0, 1600, Scenario::kGoesOn}),
    [](const auto& given) { return given.param.name; });

}  // namespace
