// Edges of the store that neither random operations nor transcripts reach.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <vector>

#include "kscache/kscache_int.h"
#include "kscache/kscache_tree.h"
#include "tests/support/scripted_platform.h"
#include "tests/support/system_calls.h"

namespace {

class CacheStore : public testing::Test {
  protected:
    void SetUp() override {
        scripted::reset();
        calls::watch();
    }
    void TearDown() override {
        KSCacheDestroy(cache_);
        EXPECT_EQ(calls::live(), 0U);
        calls::leaveAlone();
    }

    void make(uint32_t areaSize, uint32_t bits) {
        KSCacheDestroy(cache_);
        cache_ = KSCacheCreate(areaSize, bits, 0, nullptr, nullptr);
        ASSERT_NE(cache_, nullptr);
    }
    void fill(uint32_t from, uint32_t to) {
        for (uint32_t i = from; i < to; ++i) {
            const uint32_t words[8] = {i, 0, 0, i * 2654435761U};
            ASSERT_EQ(KSCacheAdd(cache_, words, 3, i, nullptr), 0U);
        }
    }

    KSCache* cache_ = nullptr;
};

TEST_F(CacheStore, PagesAscendWhateverTheirSize) {
    for (const uint32_t areaSize : {1080U, 100010U}) {
        for (const size_t failing :
             {size_t{0}, size_t{1}}) {  // also when only a smaller span can be had
            make(areaSize, 10);
            calls::fail({.call = calls::kMmap, .nth = failing});
            fill(0, 3 * (areaSize - 1) + 1);
            ASSERT_EQ(cache_->pageCount, 4U);
            for (const KSCachePage* page = cache_->firstPage; page->next; page = page->next) {
                EXPECT_GT(reinterpret_cast<uintptr_t>(page->next),
                          reinterpret_cast<uintptr_t>(page));
            }
            EXPECT_EQ(cache_->lastPage->freeCount, areaSize - 2);
            EXPECT_EQ(cache_->firstPage->freeCount, 0U);
        }
    }
}

/// Very large pages take memory as they fill, others at once.
TEST_F(CacheStore, LargePagesGrowAsTheyAreUsed) {
    for (const uint32_t areaSize : {460000U, 470000U}) {
        make(areaSize, 4);
        fill(0, 1);
        const auto* page = reinterpret_cast<unsigned char*>(cache_->firstPage);
        const size_t length = size_t{areaSize} * 72 / 4096;
        std::vector<unsigned char> resident(length);
        ASSERT_EQ(mincore(const_cast<unsigned char*>(page), length * 4096, resident.data()), 0);
        const auto there = std::count(resident.begin(), resident.end(), 1);
        EXPECT_EQ(there == std::ssize(resident), areaSize == 460000) << there << " of " << length;
    }
}

TEST_F(CacheStore, FreeListAndItsCountAgree) {
    make(0, 1);
    fill(0, 3);
    KSCacheNode* slot = kspool::slotsOf(cache_->firstPage).data() + 10;
    for (const uint64_t count : {uint64_t{1}, uint64_t{5}}) {  // whichever says that it is empty
        cache_->freeList = slot;
        cache_->freeListCount = count;
        slot->higher = count == 1 ? slot + 1 : nullptr;
        EXPECT_EQ(kspool::newnode(cache_), slot);
        EXPECT_EQ(cache_->freeList, nullptr);
        EXPECT_EQ(cache_->freeListCount, 0U);
    }
}

TEST_F(CacheStore, BadBatchesDoNothing) {
    make(0, 4);
    const uint8_t digest[32] = {1};
    const KSCacheKey good[] = {{digest, 3}}, bad[] = {{digest, 3}, {nullptr, 3}};
    uint64_t values[2] = {};
    KSCache other{};
    const struct {
        KSCache* cache;
        const KSCacheKey* keys;
        size_t count;
        uint64_t* values;
        uint32_t status, slot;
    } kCases[] = {{nullptr, bad, 2, values, 44, 44},  {&other, bad, 2, values, 82, 82},
                  {cache_, nullptr, 1, values, 9, 7}, {cache_, bad, 2, values, 9, 7},
                  {cache_, good, 1, nullptr, 9, 7},   {cache_, nullptr, 0, nullptr, 0, 7}};
    for (const auto& c : kCases) {
        *__cr_errno_location() = 7;
        EXPECT_EQ(KSCacheAddBatch(c.cache, c.keys, c.values, nullptr, c.count, nullptr), c.status);
        EXPECT_EQ(*__cr_errno_location(), c.slot);
        if (c.values == nullptr) continue;  // lookups may go without
        EXPECT_EQ(KSCacheExistsBatch(c.cache, c.keys, c.count, c.values, nullptr), c.status);
        EXPECT_EQ(KSCacheFetchBatch(c.cache, c.keys, c.count, c.values, nullptr), c.status);
    }
    EXPECT_EQ(cache_->cachedItems + cache_->misses + cache_->hits, 0U);
}

TEST_F(CacheStore, ReferenceCountsStopAtTheirCeiling) {
    const uint8_t key[32] = {};
    make(0, KSCacheBitsFor(5));
    KSCacheAdd(cache_, key, 1, 0, nullptr);
    for (int i = 0; i < 16390; ++i)
        KSCacheExists(cache_, key, 1, nullptr);
    uint8_t argument = 0;  // but no callback that could take it
    KSCacheAdd(cache_, key, 1, 0, &argument);
    EXPECT_EQ(kspool::nodeAt(&cache_->roots[0])->refCount, 16383U);
    EXPECT_EQ(cache_->hits, 16391U);
}

}  // namespace
