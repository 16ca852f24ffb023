// Edges of the store that neither random operations nor transcripts reach.
#include <gtest/gtest.h>

#include <cstring>

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
        memset(static_cast<void*>(node), 0xee, sizeof *node);
        node->refCount = 0;
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
    // What a slot held before is no part of a short key.
    memset(cache_->areaPointer->fingerprint, 0xee, 32);
    const uint8_t key[32] = {9};
    ASSERT_EQ(KSCacheAdd(cache_, key, 1, 0, nullptr), 0U);
    ASSERT_EQ(KSCacheAdd(cache_, key, 3, 0, nullptr), 0U);
    EXPECT_EQ(brokenInvariant(cache_), "");
    // The list and its count are kept in agreement, whichever says that it is empty.
    for (const uint64_t count : {uint64_t{1}, uint64_t{5}}) {
        cache_->freeList = slots + 10;
        cache_->freeListCount = count;
        slots[10].higher = count == 1 ? slots + 11 : nullptr;
        EXPECT_EQ(kspool::newnode(cache_), slots + 10);
        EXPECT_EQ(cache_->freeList, nullptr);
        EXPECT_EQ(cache_->freeListCount, 0U);
    }
}

TEST_F(CacheStore, ReferenceCountsStopAtTheirCeiling) {
    const uint8_t key[32] = {};
    make(0, 4);
    KSCacheAdd(cache_, key, 1, 0, nullptr);
    for (int i = 0; i < 16390; ++i)
        KSCacheExists(cache_, key, 1, nullptr);
    uint8_t argument = 0;  // but no callback that could take it
    KSCacheAdd(cache_, key, 1, 0, &argument);
    EXPECT_EQ(cache_->roots[0]->refCount, 16383U);
    EXPECT_EQ(cache_->hits, 16391U);
}

}  // namespace
