// Edges of the store that neither random operations nor transcripts reach.
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <barrier>
#include <fstream>
#include <thread>
#include <vector>

#include "kscache/kscache_int.h"
#include "tests/support/cache_model.h"
#include "tests/support/torture.h"

namespace {

const std::string kNoFile = "/nonexistent/file";

TEST(CacheStore, PagesAscendWhateverTheirSize) {
    const torture::Watched watched;
    for (const uint32_t areaSize : {1080U, 29411U}) {
        for (const size_t failing : {0U, 1U}) {  // also when only a smaller span can be had
            const CacheModel::Setup setup = {.bits = 10, .areaSize = areaSize};
            CacheModel model(setup, kNoFile);
            calls::fail({.call = calls::kMmap, .nth = failing});
            model.fill(2 * (areaSize - 1) + 1);
            const KSCache* cache = model.cache();
            ASSERT_EQ(cache->pageCount, 3U);
            for (const KSCachePage* page = cache->firstPage; page->next; page = page->next)
                EXPECT_GT(static_cast<void*>(page->next), static_cast<const void*>(page));
            EXPECT_EQ(cache->lastPage->freeCount, areaSize - 2);
            EXPECT_EQ(cache->firstPage->freeCount, 0U);
        }
    }
}

/// A first page looks for a large span of addresses. Where these are limited, other threads find
/// room meanwhile.
TEST(CacheStore, FirstPagesShareALimitOfAddresses) {
    std::atomic<int> failed = 0;
    std::barrier both(2);
    const auto work = [&](int times) {
        for (const uint8_t key[32] = {1}; times > 0; --times) {
            KSCache* cache = KSCacheCreate(0, 4, 0, nullptr, nullptr);
            failed += KSCacheAdd(cache, key, 3, 1, nullptr) != CR_STATUS_OK;
            KSCacheDestroy(cache);
        }
    };
    std::thread other([&] {
        work(1);
        both.arrive_and_wait();
        both.arrive_and_wait();
        work(2000);
    });
    rlimit kept{};
    both.arrive_and_wait();
    getrlimit(RLIMIT_AS, &kept);
    unsigned long used = 0;
    std::ifstream("/proc/self/statm") >> used;
    // A span of 4 GiB would leave less than a page.
    const rlimit low = {used * 4096 + (rlim_t{4} << 30) + 40960, kept.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_AS, &low), 0);
    both.arrive_and_wait();
    work(2000);
    other.join();
    // The span begins anywhere then; a page of one huge page still begins on its boundary.
    CacheModel model({.bits = 4, .areaSize = 29127}, kNoFile);
    model.fill(1);
    setrlimit(RLIMIT_AS, &kept);
    EXPECT_EQ(failed, 0);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(model.cache()->firstPage) % (2 << 20), 0U);
}

/// Without a span a page lies where the system maps it.
TEST(CacheStore, APageIsMappedWhereNoSpanCanBeHad) {
    rlimit kept{};
    getrlimit(RLIMIT_AS, &kept);
    // MiB of addresses that are left, and a failing call.
    for (const auto& [room, failing] : {std::pair<rlim_t, int>{4096, calls::kOpen},
                                        {4096, calls::kRead},
                                        {4096, calls::kGetrlimit},
                                        {16, calls::kAny}}) {
        const torture::Watched watched;
        KSCache* cache = KSCacheCreate(29127, 4, 0, nullptr, nullptr);
        unsigned long used = 0;
        std::ifstream("/proc/self/statm") >> used;
        rlimit low = kept;
        low.rlim_cur = used * 4096 + (room << 20);
        EXPECT_EQ(setrlimit(RLIMIT_AS, &low), 0);
        calls::fail({.call = failing, .nth = failing != calls::kAny ? 1U : 0U});
        const uint32_t added = KSCacheAdd(cache, std::array<uint64_t, 4>{1}.data(), 3, 1, nullptr);
        setrlimit(RLIMIT_AS, &kept);
        EXPECT_EQ(added, 0U) << room;
        EXPECT_EQ(calls::failures(), failing != calls::kAny ? 1U : 0U);
        KSCacheDestroy(cache);
    }
}

/// Very large pages take memory as they fill, others at once.
TEST(CacheStore, LargePagesGrowAsTheyAreUsed) {
    for (const uint32_t areaSize : {460000U, 470000U}) {
        CacheModel model({.bits = 4, .areaSize = areaSize}, kNoFile);
        model.fill(1);
        const size_t length = size_t{areaSize} * 72 / 4096;
        std::vector<unsigned char> resident(length);
        ASSERT_EQ(mincore(model.cache()->firstPage, length * 4096, resident.data()), 0);
        const auto there = std::count(resident.begin(), resident.end(), 1);
        EXPECT_EQ(there == std::ssize(resident), areaSize == 460000) << there << " of " << length;
    }
}

/// Bytes in huge pages of the mapping that holds an address.
uint64_t hugeBytes(const void* address) {
    std::ifstream maps("/proc/self/smaps");
    const auto wanted = reinterpret_cast<uintptr_t>(address);
    bool within = false;
    for (std::string line; std::getline(maps, line);) {
        unsigned long first = 0, last = 0;
        if (sscanf(line.c_str(), "%lx-%lx ", &first, &last) == 2)
            within = first <= wanted && wanted < last;
        if (within && sscanf(line.c_str(), "AnonHugePages: %lu kB", &first) == 1)
            return first * 1024;
    }
    return 0;
}

/// Each range of a huge page that small pages fill together becomes one, and can be given back.
TEST(CacheStore, SmallPagesShareHugePages) {
    constexpr uint64_t kHugePage = uint64_t{2} << 20;
    if (syscall(SYS_madvise, nullptr, 0, 25 /* MADV_COLLAPSE */) != 0)
        GTEST_SKIP() << "not before Linux 6.1";
    for (const uint32_t lock : {0U, 1U}) {
        const uint32_t areaSize = lock != 0 ? 20'000 : 1024;
        CacheModel model({.bits = 16, .areaSize = areaSize, .lockPages = lock}, kNoFile);
        model.fill(70'000, CacheModel::kBatch);
        const KSCache* cache = model.cache();
        const auto first = reinterpret_cast<uintptr_t>(cache->firstPage);
        const auto last = reinterpret_cast<uintptr_t>(cache->lastPage->end);
        const uint64_t most = last / kHugePage - (first + kHugePage - 1) / kHugePage;
        const uint64_t huge = hugeBytes(cache->firstPage) / kHugePage;
        EXPECT_LE(huge, most);
        EXPECT_GE(huge, most / 2) << areaSize;  // the system may have too few
        model.drop(70'000);
        model.reclaim();
        model.compareAll();
        EXPECT_LT(cache->cacheSize, 2 * kHugePage);
    }
}

TEST(CacheStore, FreeListAndItsCountAgree) {
    CacheModel model({}, kNoFile);
    model.fill(3);
    KSCache* cache = model.cache();
    KSCacheNode* slot = kspool::slotsOf(cache->firstPage).data() + 10;
    for (const uint64_t count : {1U, 5U}) {  // whichever says that it is empty
        cache->freeList = slot;
        cache->freeListCount = count;
        slot->higher = count == 1 ? slot + 1 : nullptr;
        EXPECT_EQ(kspool::newnode(cache), slot);
        EXPECT_EQ(cache->freeList, nullptr);
        EXPECT_EQ(cache->freeListCount, 0U);
    }
}

TEST(CacheStore, BadBatchesDoNothing) {
    const CacheModel model({}, kNoFile);
    KSCache* cache = model.cache();
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
                  {nullptr, good, 1, values, 44, 44}, {&other, bad + 1, 1, values, 82, 82},
                  {cache, bad + 1, 1, values, 9, 7},  {cache, nullptr, 1, values, 9, 7},
                  {cache, bad, 2, values, 9, 7},      {cache, good, 1, nullptr, 9, 7},
                  {cache, nullptr, 0, nullptr, 0, 7}};
    for (const auto& c : kCases) {
        *__cr_errno_location() = 7;
        EXPECT_EQ(KSCacheAddBatch(c.cache, c.keys, c.values, nullptr, c.count, nullptr), c.status);
        EXPECT_EQ(*__cr_errno_location(), c.slot);
        if (c.values == nullptr) continue;  // lookups may go without
        EXPECT_EQ(KSCacheExistsBatch(c.cache, c.keys, c.count, c.values, nullptr), c.status);
        EXPECT_EQ(KSCacheFetchBatch(c.cache, c.keys, c.count, c.values, nullptr), c.status);
    }
    EXPECT_EQ(cache->cachedItems + cache->misses + cache->hits, 0U);
}

TEST(CacheStore, ReferenceCountsStopAtTheirCeiling) {
    CacheModel model({.bits = KSCacheBitsFor(5)}, kNoFile);
    for (int i = 0; i < 16390; ++i)
        model.fill(1);
    model.compareAll();
    EXPECT_EQ(model.cache()->hits, 16389U);
}

}  // namespace
