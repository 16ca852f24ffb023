// Add, hit, miss and fetch of the cache beside hash tables that a user would take instead.
//
// Run it with random interleaving (scripts/bench does): the short rounds of all benchmarks are then
// mixed, so that drift of the machine affects all tables alike. Each table is built, and all of its
// keys are looked up once, before its first timed round. Each round of lookups starts where the
// last one ended, so that it does not find its keys in the processor's caches.
#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench/bench_keys.h"

namespace bench {
namespace {

/// Operations of a round, unless filling a table takes more.
constexpr size_t kOperations = 1'000'000;
constexpr int kAddRounds = 5;
/// Bytes of an entry while a table grows: the old and the new array of the largest table.
constexpr size_t kBytesToGrow = 200;
constexpr int kLookupRounds = 21;

struct Keys {
    std::vector<Digest> known;
    std::vector<Digest> shuffled;  ///< the known ones in the order of lookups, another than of adds
    std::vector<Digest> absent;
};

const Keys& keysFor(size_t count) {
    static std::map<size_t, Keys> made;
    Keys& keys = made[count];
    if (keys.known.empty()) {
        keys = {randomDigests(count, count), {}, randomDigests(count, count + 1)};
        keys.shuffled = keys.known;
        std::shuffle(keys.shuffled.begin(), keys.shuffled.end(), std::mt19937_64(7));
    }
    return keys;
}

template <typename Table>
void fill(Table& table, const std::vector<Digest>& keys) {
    for (size_t i = 0; i < keys.size(); i += kStretch) {
        const size_t count = std::min(kStretch, keys.size() - i);
        if (table.add(keys.data() + i, count, i) != count) abort();
    }
}

/// A filled table of a kind and size, built once for all rounds.
template <typename Table>
Table& filledTable(size_t count) {
    static std::map<size_t, std::unique_ptr<Table>> made;
    std::unique_ptr<Table>& table = made[count];
    if (table == nullptr) {
        table = std::make_unique<Table>(count);
        fill(*table, keysFor(count).known);
        for (size_t i = 0; i + kStretch <= count; i += kStretch)
            table->fetch(keysFor(count).shuffled.data() + i, kStretch);
    }
    return *table;
}

template <typename Table>
void benchAdd(benchmark::State& state, size_t count) {
    const std::vector<Digest>& keys = keysFor(count).known;
    const size_t rounds = std::max<size_t>(1, kOperations / count);
    for (auto _ : state) {
        double seconds = 0;
        for (size_t round = 0; round < rounds; ++round) {
            warmMemory(count * kBytesToGrow);
            std::unique_ptr<Table> table;
            seconds += secondsOf([&] {
                table = std::make_unique<Table>(count);
                fill(*table, keys);
            });
        }
        state.SetIterationTime(seconds);
    }
    state.SetItemsProcessed(static_cast<int64_t>(rounds * count));
}

/// Looks up the keys from `next` on, and fails the run if a result is wrong.
template <typename Lookup>
void benchLookup(benchmark::State& state, const std::vector<Digest>& keys, size_t& next,
                 bool expected, Lookup lookup) {
    for (auto _ : state) {
        Found found;
        state.SetIterationTime(secondsOf([&] {
            for (size_t i = 0; i < kOperations; i += kStretch) {
                if (next + kStretch > keys.size()) next = 0;
                const Found more = lookup(keys.data() + next, kStretch);
                found.count += more.count;
                found.values += more.values;
                next += kStretch;
            }
        }));
        benchmark::DoNotOptimize(found.values);
        if (found.count != (expected ? kOperations : 0)) abort();
    }
    state.SetItemsProcessed(static_cast<int64_t>(kOperations));
}

template <typename Table>
void registerTable(const std::string& name, size_t count) {
    using benchmark::State;
    const auto lookup = [&](const std::string& work, auto keys, bool expected, auto call) {
        const auto run = [=, next = size_t{0}](State& state) mutable {
            Table& table = filledTable<Table>(count);
            benchLookup(
                state, keysFor(count).*keys, next, expected,
                [&](const Digest* first, size_t many) { return (table.*call)(first, many); });
        };
        registerWork(work, name, count, kLookupRounds, run);
    };
    const auto add = [=](State& state) { benchAdd<Table>(state, count); };
    registerWork("add", name, count, kAddRounds, add);
    lookup("hit", &Keys::shuffled, true, &Table::exists);
    lookup("miss", &Keys::absent, false, &Table::exists);
    lookup("fetch", &Keys::shuffled, true, &Table::fetch);
}

void registerAll(const std::vector<size_t>& counts) {
    for (const size_t count : counts) {
        registerTable<CacheTable>("kspool", count);
        registerTable<BatchTable>("batch", count);
        registerTable<AbseilTable>("abseil", count);
        registerTable<AbseilPrefetchTable>("prefetch", count);
        registerTable<StdTable>("std", count);
        registerTable<BoostTable>("boost", count);
        registerTable<DenseTable>("dense", count);
        registerTable<SparseTable>("sparse", count);
    }
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    const auto counts = bench::countsFrom(argc, argv, {100'000, 1'000'000, 10'000'000});
    bench::registerAll(counts);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
