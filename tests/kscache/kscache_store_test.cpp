// Edges of the store that neither random operations nor transcripts reach.
#include <gtest/gtest.h>

#include "kscache/kscache_int.h"
#include "tests/support/cache_invariants.h"
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

TEST_F(CacheStore, SizesAreRoundedAndHeldInTheirLimits) {
    // With 4096-byte system pages.
    constexpr struct {
        uint32_t areaSize, bits, gotArea, gotBits;
    } kCases[] = {
        {0, 0, 1024, 4},
        {1, 1, 1024, 1},
        {1000, 20, 1024, 20},
        {1024, 30, 1024, 4},
        {1025, 31, 1080, 4},
        {2000, 3, 2048, 3},
        {100000, 2, 100010, 2},
        {59652323, 4, 59652323, 4},
        {59652324, 4, 59652323, 4},
        {UINT32_MAX, UINT32_MAX, 59652323, 4},
    };
    for (const auto& c : kCases) {
        make(c.areaSize, c.bits);
        for (int round = 0; round < 2; ++round) {  // a reset rounds again, and changes nothing
            EXPECT_EQ(cache_->areaSize, c.gotArea) << c.areaSize;
            EXPECT_EQ(cache_->bits, c.gotBits) << c.bits;
            KSCacheReset(cache_);
        }
    }
}

TEST_F(CacheStore, PagesAscendWhateverTheirSize) {
    for (const uint32_t areaSize : {1080U, 100010U}) {
        make(areaSize, 10);
        fill(0, 3 * (areaSize - 1) + 1);
        ASSERT_EQ(cache_->pageCount, 4U);
        for (const KSCachePage* page = cache_->firstPage; page->next != nullptr;
             page = page->next) {
            EXPECT_GT(reinterpret_cast<uintptr_t>(page->next), reinterpret_cast<uintptr_t>(page));
        }
        EXPECT_EQ(cache_->lastPage->freeCount, areaSize - 2);
        EXPECT_EQ(cache_->firstPage->freeCount, 0U);
    }
}

TEST_F(CacheStore, FreedSlotsAreReusedBeforeFreshOnes) {
    make(0, 1);
    fill(0, 3);
    // Takes the second and third node out of the trees and puts them on the free list.
    auto* slots = reinterpret_cast<KSCacheNode*>(cache_->firstPage) + 1;
    for (KSCacheNode* node : {slots + 1, slots + 2}) {
        for (KSCacheNode** link : {&cache_->roots[0], &cache_->roots[1], &slots[0].higher,
                                   &slots[0].lower, &slots[1].higher, &slots[1].lower}) {
            if (*link == node) *link = nullptr;
        }
        *node = {};
        node->higher = cache_->freeList;
        cache_->freeList = node;
        ++cache_->freeListCount;
        --cache_->cachedItems;
    }
    ASSERT_EQ(brokenInvariant(cache_), "");
    const KSCacheNode* const order[] = {slots + 2, slots + 1, slots + 3};
    for (uint32_t i = 0; i < 3; ++i) {
        fill(100 + i, 101 + i);
        EXPECT_EQ(order[i]->value, 100 + i);
        EXPECT_EQ(brokenInvariant(cache_), "");
    }
    EXPECT_EQ(cache_->freeList, nullptr);
}

TEST_F(CacheStore, OrderOfTypesThatShareSixteenBytes) {
    const uint8_t key[32] = {1, 2, 3};
    make(0, 4);
    KSCacheAdd(cache_, key, 1, 10, nullptr);
    KSCacheAdd(cache_, key, 3, 30, nullptr);
    EXPECT_EQ(cache_->roots[0]->higher->type, 3);
    make(0, 4);
    KSCacheAdd(cache_, key, 3, 30, nullptr);
    KSCacheAdd(cache_, key, 1, 10, nullptr);
    EXPECT_EQ(cache_->roots[0]->lower->type, 1);
}

TEST_F(CacheStore, ReferenceCountsStopAtTheirCeiling) {
    const uint8_t key[32] = {};
    make(0, 4);
    KSCacheAdd(cache_, key, 1, 0, nullptr);
    for (int i = 0; i < 16390; ++i)
        KSCacheExists(cache_, key, 1, nullptr);
    KSCacheAdd(cache_, key, 1, 0, nullptr);
    EXPECT_EQ(cache_->roots[0]->refCount, 16383U);
    EXPECT_EQ(cache_->hits, 16391U);
}

}  // namespace
