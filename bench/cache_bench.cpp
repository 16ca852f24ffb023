// Add, hit, miss and fetch of the cache beside hash tables that a user would take instead, and
// beside a replay of the cache lines that its lookups touch.
//
// Run it with random interleaving (scripts/bench does): the short rounds of all benchmarks are then
// mixed, so that drift of the machine affects all tables alike. Each table is built, and all of its
// keys are looked up once, before its first timed round. Each round of lookups starts where the
// last one ended, so that it does not find its keys in the processor's caches.
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench/bench_keys.h"
#include "bench/bench_replay.h"

namespace bench {
namespace {

using benchmark::State;

/// Operations of a round, unless filling a table takes more.
constexpr size_t kOperations = 1'000'000;
constexpr int kAddRounds = 7;
/// Bytes of an entry while a table grows: the old and the new array of the largest table.
constexpr size_t kBytesToGrow = 200;
constexpr int kLookupRounds = 11;

struct Keys {
    explicit Keys(size_t count)
        : digests(randomDigests(count, count)),
          digestsInTurn(shuffled(digests)),
          absentDigests(randomDigests(count, count + 1)) {}

    std::vector<Digest> digests;
    std::vector<Digest> digestsInTurn;  ///< the same in the order of lookups, another than of adds
    std::vector<Digest> absentDigests;

    std::vector<KSCacheKey> known = keysOf(digests);
    std::vector<KSCacheKey> inTurn = keysOf(digestsInTurn);
    std::vector<KSCacheKey> scattered = shuffled(known);  ///< digests anywhere in memory
    std::vector<KSCacheKey> absent = keysOf(absentDigests);
};

const Keys& keysFor(size_t count) {
    static std::map<size_t, Keys> made;
    return made.try_emplace(count, count).first->second;
}

/// A filled table of a kind and size, built once for all rounds.
template <typename Table>
Table& filledTable(size_t count) {
    static std::map<size_t, std::unique_ptr<Table>> made;
    std::unique_ptr<Table>& table = made[count];
    if (table == nullptr) {
        table = std::make_unique<Table>(count);
        fill(*table, keysFor(count).known);
    }
    return *table;
}

template <typename Table>
using Add = size_t (Table::*)(const KSCacheKey*, size_t, uint64_t);
template <typename Table>
using LookUp = Found (Table::*)(const KSCacheKey*, size_t);

template <typename Table>
void benchAdd(State& state, size_t count, Add<Table> add) {
    const std::vector<KSCacheKey>& keys = keysFor(count).known;
    const size_t rounds = std::max<size_t>(1, kOperations / count);
    for (auto _ : state) {
        double seconds = 0;
        for (size_t round = 0; round < rounds; ++round) {
            warmMemory(count * kBytesToGrow);
            std::unique_ptr<Table> table;
            seconds += secondsOf([&] {
                table = std::make_unique<Table>(count);
                fill(*table, keys, add);
            });
        }
        state.SetIterationTime(seconds);
    }
    state.SetItemsProcessed(static_cast<int64_t>(rounds * count));
}

/// The keys of a round: the next ones of all.
std::vector<KSCacheKey> nextKeys(const std::vector<KSCacheKey>& keys, size_t& next) {
    std::vector<KSCacheKey> round;
    while (round.size() < kOperations) {
        if (next + kStretch > keys.size()) next = 0;
        round.insert(round.end(), keys.data() + next, keys.data() + next + kStretch);
        next += kStretch;
    }
    return round;
}

template <typename Table>
void registerAdd(const std::string& name, size_t count, Add<Table> add = &Table::add) {
    registerWork("add", name, count, kAddRounds,
                 [=](State& state) { benchAdd<Table>(state, count, add); });
}

/// A round of lookups fails the run if a result is wrong.
template <typename Table>
void registerLookUp(const std::string& work, const std::string& name, size_t count,
                    LookUp<Table> call, std::vector<KSCacheKey> Keys::*keys) {
    const size_t expected = keys == &Keys::absent ? 0 : kOperations;
    registerWork(work, name, count, kLookupRounds, [=, next = size_t{0}](State& state) mutable {
        Table& table = filledTable<Table>(count);
        const std::vector<KSCacheKey> round = nextKeys(keysFor(count).*keys, next);
        Found found;
        const double seconds = secondsOf([&] {
            for (size_t i = 0; i < kOperations; i += kStretch) {
                const Found more = (table.*call)(&round[i], kStretch);
                found.count += more.count;
                found.values += more.values;
            }
        });
        benchmark::DoNotOptimize(found.values);
        if (found.count != expected) abort();
        report(state, seconds, kOperations);
    });
}

template <Level level, size_t ahead>
void registerReplay(const std::string& name, size_t count) {
    registerWork("hit", name, count, kLookupRounds, [=, next = size_t{0}](State& state) mutable {
        KSCache* cache = filledTable<CacheTable>(count).handle();
        const auto lines = linesOf(cache, nextKeys(keysFor(count).inTurn, next));
        report(state, secondsOf([&] { replay<level, ahead>(lines); }), kOperations);
    });
}

template <typename Table>
void registerFind(const std::string& name, size_t count, LookUp<Table> call) {
    registerLookUp("hit", name, count, call, &Keys::inTurn);
    registerLookUp("miss", name, count, call, &Keys::absent);
}

template <typename Table>
void registerScattered(const std::string& name, size_t count, LookUp<Table> call) {
    registerLookUp("scattered", name, count, call, &Keys::scattered);
}

template <typename Table>
void registerMap(const std::string& name, size_t count) {
    registerAdd<Table>(name, count);
    registerFind<Table>(name, count, &Table::find);
}

void registerCache(size_t count) {
    registerAdd<CacheTable>("kspool", count);
    registerAdd<CacheTable>("batch", count, &CacheTable::addBatch);
    registerFind("kspool", count, &CacheTable::exists);
    registerFind("batch-1", count, &CacheTable::existsBatch<1>);
    registerFind("batch-4", count, &CacheTable::existsBatch<4>);
    registerFind("batch-8", count, &CacheTable::existsBatch<8>);
    registerFind("batch-32", count, &CacheTable::existsBatch<32>);
    registerFind("batch", count, &CacheTable::existsBatch<kStretch>);
    registerScattered("kspool", count, &CacheTable::exists);
    registerScattered("batch-32", count, &CacheTable::existsBatch<32>);
    registerScattered("batch", count, &CacheTable::existsBatch<kStretch>);
    registerLookUp("fetch", "kspool", count, &CacheTable::fetch, &Keys::inTurn);
    registerLookUp("fetch", "batch", count, &CacheTable::fetchBatch, &Keys::inTurn);
    registerReplay<Level::kFirst, 16>("replay-first-16", count);
    registerReplay<Level::kFirst, 32>("replay-first-32", count);
    registerReplay<Level::kFirst, 64>("replay-first-64", count);
    registerReplay<Level::kSecond, 16>("replay-second-16", count);
    registerReplay<Level::kSecond, 32>("replay-second-32", count);
    registerReplay<Level::kSecond, 64>("replay-second-64", count);
}

void registerAll(const std::vector<size_t>& counts) {
    for (const size_t count : counts) {
        registerCache(count);
        registerMap<AbseilTable>("abseil", count);
        registerFind("ahead-16", count, &AbseilTable::findAhead<16>);
        registerFind("ahead-32", count, &AbseilTable::findAhead<32>);
        registerFind("ahead-64", count, &AbseilTable::findAhead<64>);
        registerMap<BoostTable>("boost", count);
        registerScattered("abseil", count, &AbseilTable::find);
        registerScattered("ahead-32", count, &AbseilTable::findAhead<32>);
        registerScattered("boost", count, &BoostTable::find);
        registerMap<StdTable>("std", count);
        registerMap<DenseTable>("dense", count);
        registerMap<SparseTable>("sparse", count);
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
