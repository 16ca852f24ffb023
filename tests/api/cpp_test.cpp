// The C++ interface: what it adds to the C functions, which have tests of their own.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <string>
#include <vector>

#include "kspool.hpp"
#include "tests/support/folder.h"
#include "tests/support/scripted_platform.h"

using namespace kspool;

namespace {

static_assert(std::ranges::input_range<Entries&> && std::ranges::input_range<Lines&> &&
              std::ranges::input_range<Records&>);
static_assert(!std::is_copy_constructible_v<Cache> && !std::is_copy_assignable_v<Session>);
static_assert(std::is_constructible_v<Cache, int> && !std::is_convertible_v<KSCache*, Cache>);

/// A status is never compared with a value.
template <typename A, typename B>
concept Comparable = requires(const A& a, const B& b) {
    a == b;
};
static_assert(Comparable<Status, uint32_t> && !Comparable<Result<uint64_t>, uint32_t> &&
              !Comparable<Result<uint64_t>, Status>);

static_assert(std::is_same_v<decltype(std::declval<const Cache&>().get()), const KSCache*>);

/// A cache, and numbered keys with their numbers as values.
struct Known {
    explicit Known(size_t count) : digests(count), values(count) {
        for (uint32_t i = 0; i < count; ++i) {
            memcpy(&digests[i][0], &i, sizeof i);
            memcpy(&digests[i][12], &i, sizeof i);
            keys.push_back(keyOf(digests[i]));
            values[i] = i;
        }
        EXPECT_TRUE(cache.addBatch(keys, values));
    }
    std::vector<std::array<uint8_t, 32>> digests;
    std::vector<KSCacheKey> keys;
    std::vector<uint64_t> values;
    Cache cache{1000};
    KSCacheStatsRecord stats() { return *cache.ask<KSCacheStatsRecord>(KSCacheStats); }
};

/// A session over the scripted platform, and the answer to its next request.
Session scriptedSession() {
    scripted::reset();
    return Session(MBInitWithAgentCfg("http://mbs", 0, "me", "secret", "/agent.cfg"));
}
void answer(const std::string& data, uint32_t status = 0) {
    for (const char* call : {"WSRequestExt", "WSRequestPOST"})
        scripted::queued(call).assign(1, {.status = status, .data = data});
}

/// A sanitizer sees a handle that is lost or released twice.
TEST(Cpp, MovesLeaveEmptyOwners) {
    Cache first(1), second, third;
    KSCache* const handle = first.get();
    second = std::move(first);
    third = Cache(1);
    third = std::move(second);
    EXPECT_TRUE(first.get() == nullptr && second.get() == nullptr && third.get() == handle);
    EXPECT_EQ(Cache(third.release()).get(), handle);
    EXPECT_FALSE(third);
    Text text(strdup("text")), taken = std::move(text);
    EXPECT_STREQ(taken.c_str(), "text");
    EXPECT_EQ(std::string_view(text), "");
    Po po;
    char line[] = "a|b";
    ASSERT_EQ(POSetFromNonConstString(&po, line), 0);
    Po other = std::move(po);
    EXPECT_EQ(po.field(0).data(), nullptr);
    po = std::move(other);
    EXPECT_EQ(po.field(0), "a|b");

    Known known(1);
    const Cache elsewhere = std::move(known.cache);
    Cache& none = known.cache;
    auto entries = none.entries();
    EXPECT_EQ(entries.begin(), entries.end());
    auto lines = Session().findLines(1);
    EXPECT_EQ(lines.begin(), lines.end());
    for (const Status status :
         {none.add(known.keys[0], 1), none.fetch(known.keys[0]).status(),
          none.existsBatch(known.keys), none.call(KSCacheCheck, 1U), entries.status(),
          lines.status(), Session().ask<uint32_t>(MBGetTime).status()})
        EXPECT_EQ(status, CR_STATUS_NULL_HANDLE);
}

/// Arrays of exactly their lengths, beyond which a sanitizer sees each access.
TEST(Cpp, SpansOfOtherLengthsAreRefused) {
    constexpr std::array<size_t, 4> kLengths = {0, 3, 4, 5};
    const auto expected = [](bool done) { return done ? Status() : CR_STATUS_INVALID_PARAMETER; };
    const auto fits = [](const auto& array) { return array.empty() || array.size() == 4; };
    for (size_t i = 0; i < 64; ++i) {
        Known known(4);
        std::vector<uint64_t> values(kLengths[i / 16], 77);
        std::vector<uint32_t> statuses(kLengths[i / 4 % 4], 77);
        const std::vector<void*> args(kLengths[i % 4]);
        const bool isLookup = fits(values) && fits(statuses);
        const bool isAdd = values.size() == 4 && fits(statuses) && fits(args);
        // An empty span that points to something is not written to either.
        const std::span<uint64_t> to(values.empty() ? known.values.data() : values.data(),
                                     values.size());
        known.values.assign(4, 55);
        EXPECT_EQ(known.cache.fetchBatch(known.keys, to, statuses), expected(isLookup)) << i;
        EXPECT_EQ(known.cache.existsBatch(known.keys, to, statuses), expected(isLookup)) << i;
        EXPECT_EQ(known.stats().hits, isLookup ? 4 : 0) << i;
        EXPECT_EQ(std::ranges::count(known.values, 55), 4) << i;
        EXPECT_EQ(std::ranges::count(values, 77), isLookup ? 0 : values.size()) << i;
        EXPECT_EQ(std::ranges::count(statuses, 77), isLookup ? 0 : statuses.size()) << i;
        known.cache.call(KSCacheReset);
        EXPECT_EQ(known.cache.addBatch(known.keys, to, statuses, args), expected(isAdd)) << i;
        EXPECT_EQ(known.stats().cachedItems, isAdd ? 4 : 0) << i;
    }
}

TEST(Cpp, LoopsOverEntries) {
    Known known(3000);  // three pages
    auto all = known.cache.entries();
    ptrdiff_t met = 0;
    for (const KSCacheNode& entry : all) {
        if (++met == 1000) break;
        EXPECT_TRUE(known.cache.erase({entry.fingerprint, entry.type}));
    }
    EXPECT_EQ(met + std::ranges::distance(all.begin(), all.end()), 3000) << "goes on behind";
    EXPECT_EQ(std::ranges::distance(all.begin(), all.end()), 0) << "stays at the end";
    EXPECT_TRUE(all.status());
    auto some = known.cache.entries();
    for (size_t i = 1000; i < 2900; ++i)
        EXPECT_TRUE(known.cache.erase(known.keys[i]));
    for (const KSCacheNode& entry : some) {
        EXPECT_GE(entry.value, 999U);
        KSCacheReclaim(known.cache.get());
    }
    EXPECT_EQ(known.stats().pageCount, 1U);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(some.status(), CR_STATUS_BAD_HANDLE) << "compacted";
        EXPECT_EQ(some.begin(), some.end());
    }
}

TEST(Cpp, CallsReachEachFunctionOfAHandle) {
    const Folder folder;
    const std::string path = folder.path + "/cache";
    Known known(10);
    Cache other(10);
    const auto hold = ask<FileHold>(KSCacheHoldFile, path.c_str());
    const auto replaced = [&](const KSCacheHold* with) {
        return known.cache.ask<uint64_t>(KSCacheReplaceFile, path.c_str(), with);
    };
    EXPECT_EQ(replaced(nullptr).status(), CR_STATUS_BUSY);
    EXPECT_EQ(replaced(hold->get()).value_or(0), 10U);
    EXPECT_EQ(ask<FileHold>(KSCacheHoldFile, path.c_str()).status(), CR_STATUS_BUSY);
    EXPECT_EQ(other.ask<uint64_t>(KSCacheLoad, path.c_str()).value_or(0), 10U);
    EXPECT_TRUE(other.erase(known.keys[0]) && other.call(KSCachePrune) == uint64_t{1});
    Session session = scriptedSession();
    answer("");
    EXPECT_TRUE(session.call(MBFileCopy, "a", "b", 1U));
    answer("", 2011);
    EXPECT_EQ(session.call(MBDirCreate, "a"), 2011U);
    EXPECT_EQ(session.ask<MBEvent>(MBLastEvent)->size, sizeof(MBEvent));
    answer("policy");
    EXPECT_STREQ(session.ask<Text>(MBFindImagePolicy, 1U, "c", "n")->c_str(), "policy");
    answer("", 2011);
    const auto none = session.ask<Text>(MBFindImagePolicy, 1U, "c", "n");
    EXPECT_TRUE(!none && none.status() == 2011U);
}

TEST(Cpp, LoopsOverQueries) {
    Session session = scriptedSession();
    const std::string three = "names\ntypes\n3\nA|1\nB|2\nC|3\n";
    answer(three);
    auto lines = session.findLines(1);
    std::string met;
    for (const std::string_view line : lines)
        met += line;
    EXPECT_EQ(met, "A|1B|2C|3");
    EXPECT_EQ(lines.begin(), lines.end());
    EXPECT_TRUE(lines.status() && lines.count() == 3);
    // The second line is no PO. The next loop has the third.
    answer(three);
    scripted::queued("POSetFromNonConstString") = {{}, {.status = 82}, {}};
    auto records = session.findRecords(1);
    for (const char* expected : {"A|1", "C|3"}) {
        met.clear();
        for (const Po& po : records)
            met += po.field(0);
        EXPECT_EQ(met, expected);
        EXPECT_EQ(records.status(), met == "A|1" ? CR_STATUS_BAD_HANDLE : CR_STATUS_OK);
    }
    const std::tuple<const char*, uint32_t, Status> kWithoutItems[] = {
        {"names\ntypes\n0\n", 0, CR_STATUS_OK}, {"?", 0, CR_STATUS_BAD_HANDLE}, {"", 2011, 2011}};
    for (const auto& [data, transport, expected] : kWithoutItems) {
        answer(data, transport);
        auto none = session.findLines(1);
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(none.begin(), none.end());
            EXPECT_EQ(none.status(), expected) << i;
        }
    }
    answer(three);
    auto given = session.findLines(1);
    MBPOFindClose(given.release());
    EXPECT_EQ(given.begin(), given.end());
}

TEST(Cpp, Callables) {
    Known known(10);
    size_t met = 0, hundred = 100;
    const auto again = [&met](void* arg) { met += *static_cast<size_t*>(arg); };
    Cache cache(10, again);
    const std::vector<void*> args(10, &hundred);
    EXPECT_TRUE(cache.addBatch(known.keys, known.values, {}, args));
    Cache moved = std::move(cache);
    EXPECT_EQ(moved.add(known.keys[0], 1, &hundred), CR_STATUS_EXISTS);
    EXPECT_EQ(met, 100U);
    auto thrower = [](const void*) { throw 1; };
    cache = Cache(10, thrower);
    EXPECT_TRUE(cache.add(known.keys[0], 1));
    EXPECT_EXIT((void)cache.add(known.keys[0], 1, &met), testing::KilledBySignal(SIGABRT), "");
}

}  // namespace
