// The cost of an entry by the number of entries, and by the number of roots.
//
// Keys are computed from their number when they are needed and not stored: hundreds of millions of
// them would not fit into memory beside the cache. Computing them is not timed.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

#include "bench/bench_run.h"
#include "bench/bench_tables.h"

namespace bench {
namespace {

using benchmark::State;

constexpr size_t kLookups = 2'000'000;
constexpr size_t kNodeSize = 72;
constexpr size_t kEntriesForBits = 10'000'000;

/// Bytes of a filled cache.
size_t bytesOf(size_t entries, uint32_t bits) {
    return entries * kNodeSize + (sizeof(void*) << bits);
}

const std::string& fileName() {
    static const std::string name =
        std::string(getenv("TMPDIR") != nullptr ? getenv("TMPDIR") : "/tmp") +
        "/growth_bench.cache";
    return name;
}

/// A bijective hash of numbers (splitmix64).
uint64_t mixed(uint64_t number) {
    number += 0x9e3779b97f4a7c15;
    number = (number ^ (number >> 30)) * 0xbf58476d1ce4e5b9;
    number = (number ^ (number >> 27)) * 0x94d049bb133111eb;
    return number ^ (number >> 31);
}

/// The keys and results of one call.
struct Stretch {
    std::array<Digest, kStretch> digests;
    std::array<KSCacheKey, kStretch> keys;
    std::array<uint64_t, kStretch> values{};
    std::array<uint32_t, kStretch> statuses;

    /// Makes `count` keys from the numbers `numberOf(0)`, `numberOf(1)` and so on.
    template <typename NumberOf>
    void make(size_t count, NumberOf numberOf) {
        for (size_t i = 0; i < count; ++i) {
            const uint64_t number = numberOf(i);
            for (uint64_t word = 0; word < 4; ++word) {
                const uint64_t part = mixed(number * 4 + word);
                memcpy(digests[i].data() + word * sizeof part, &part, sizeof part);
            }
            keys[i] = {digests[i].data(), CR_FP_SHA256};
        }
    }
    size_t found(size_t count) const {
        return static_cast<size_t>(
            std::count(statuses.data(), statuses.data() + count, CR_STATUS_OK));
    }
};

/// Calls `act(stretch, count)` for keys 0 to `total` - 1 in turn, and returns the seconds of `act`
/// alone.
template <typename Act>
double eachStretch(size_t total, Act act) {
    static Stretch stretch;
    double seconds = 0;
    for (size_t first = 0; first < total; first += kStretch) {
        const size_t count = std::min(kStretch, total - first);
        stretch.make(count, [=](size_t i) { return first + i; });
        seconds += secondsOf([&] { act(stretch, count); });
    }
    return seconds;
}

struct Settings {
    size_t entries;
    uint32_t bits;
    uint32_t areaSize = KSCacheAreaFor(entries);
    bool operator==(const Settings&) const = default;
};

/// A filled cache. with() keeps the last one, since filling takes longer than most measurements.
class Cache {
  public:
    explicit Cache(Settings wanted, bool batches) : settings(wanted) {
        handle = KSCacheCreate(wanted.areaSize, wanted.bits, 0, nullptr, nullptr);
        seconds = eachStretch(wanted.entries, [&](Stretch& s, size_t count) {
            batches ? addBatch(s, count) : addSingly(s, count);
        });
    }
    ~Cache() { KSCacheDestroy(handle); }
    Cache(const Cache&) = delete;
    Cache& operator=(const Cache&) = delete;

    static Cache& with(Settings wanted) {
        static std::unique_ptr<Cache> current;
        if (current == nullptr || current->settings != wanted || current->spoiled) {
            current.reset();
            current = std::make_unique<Cache>(wanted, true);
        }
        return *current;
    }

    KSCache* handle;
    Settings settings;
    double seconds;        ///< to fill it
    bool spoiled = false;  ///< no longer holds all keys, so it must not be used again

  private:
    void addBatch(Stretch& s, size_t count) const {
        KSCacheAddBatch(handle, s.keys.data(), s.values.data(), nullptr, count, nullptr);
    }
    void addSingly(const Stretch& s, size_t count) const {
        for (size_t i = 0; i < count; ++i)
            KSCacheAdd(handle, s.keys[i].fingerprint, CR_FP_SHA256, 0, nullptr);
    }
};

template <bool batches>
void add(State& state, Settings settings) {
    Cache::with({1, 1});  // releases the last cache, which may be large
    warmMemory(bytesOf(settings.entries, settings.bits));
    const Cache cache(settings, batches);
    report(state, cache.seconds, settings.entries);
}

/// Lookups of random keys, all of them known or all unknown.
template <bool batches, bool known>
void lookUp(State& state, Settings settings) {
    static Stretch s;
    static uint64_t next = 0;
    KSCache* cache = Cache::with(settings).handle;
    double seconds = 0;
    size_t found = 0;
    for (size_t done = 0; done < kLookups; done += kStretch) {
        s.make(kStretch, [&](size_t) {
            return mixed(next++) % settings.entries + (known ? 0 : settings.entries);
        });
        seconds += secondsOf([&] {
            if (batches) {
                KSCacheExistsBatch(cache, s.keys.data(), kStretch, s.values.data(),
                                   s.statuses.data());
                return;
            }
            for (size_t i = 0; i < kStretch; ++i) {
                s.statuses[i] =
                    KSCacheExists(cache, s.keys[i].fingerprint, CR_FP_SHA256, &s.values[i]);
            }
        });
        found += s.found(kStretch);
    }
    if (found != (known ? kLookups : 0)) abort();
    report(state, seconds, kLookups);
}

void save(State& state, Settings settings) {
    KSCache* cache = Cache::with(settings).handle;
    sync();  // a disk that is busy with what was written before would be measured, too
    report(state, secondsOf([&] { KSCacheSave(cache, fileName().c_str(), nullptr); }),
           settings.entries);
}

void load(State& state, Settings settings) {
    KSCacheSave(Cache::with(settings).handle, fileName().c_str(), nullptr);
    Cache::with({1, 1});
    warmMemory(bytesOf(settings.entries, settings.bits));
    KSCache* cache =
        KSCacheCreate(KSCacheAreaFor(settings.entries), settings.bits, 0, nullptr, nullptr);
    uint64_t loaded = 0;
    const double seconds = secondsOf([&] { KSCacheLoad(cache, fileName().c_str(), &loaded); });
    if (loaded != settings.entries) abort();
    KSCacheDestroy(cache);
    report(state, seconds, settings.entries);
}

/// All but a tenth are looked up once more, and the limit leaves room for these only.
void check(State& state, Settings settings) {
    Cache::with({1, 1});
    Cache cache(settings, true);
    eachStretch(settings.entries / 10 * 9, [&](Stretch& s, size_t count) {
        KSCacheExistsBatch(cache.handle, s.keys.data(), count, nullptr, nullptr);
    });
    const auto megabytes =
        static_cast<uint32_t>(settings.entries * 9 / 10 * kNodeSize / (1 << 20) + 1);
    report(state, secondsOf([&] { KSCacheCheck(cache.handle, megabytes); }), settings.entries);
}

/// Compaction after every tenth entry was deleted.
void reclaim(State& state, Settings settings) {
    Cache& cache = Cache::with(settings);
    cache.spoiled = true;
    eachStretch(settings.entries, [&](Stretch& s, size_t count) {
        for (size_t i = 0; i < count; i += 10)
            KSCacheDelete(cache.handle, s.keys[i].fingerprint, CR_FP_SHA256);
    });
    report(state, secondsOf([&] { KSCacheReclaim(cache.handle); }), settings.entries);
}

/// The same with the smallest pages, of which there are most.
void reclaimSmall(State& state, Settings settings) {
    settings.areaSize = 1024;
    reclaim(state, settings);
}

constexpr struct {
    const char* work;
    const char* table;
    void (*run)(State&, Settings);
} kWorks[] = {
    {"add", "single", add<false>},
    {"add", "batch", add<true>},
    {"hit", "single", lookUp<false, true>},
    {"hit", "batch", lookUp<true, true>},
    {"miss", "single", lookUp<false, false>},
    {"miss", "batch", lookUp<true, false>},
    {"save", "all", save},
    {"load", "all", load},
    {"check", "all", check},
    {"reclaim", "all", reclaim},
    {"reclaim", "small", reclaimSmall},
};

/// The counts that the memory of the machine has room for, with a gigabyte to spare; the others are
/// named.
std::vector<size_t> fitting(std::vector<size_t> counts) {
    size_t free = 0;
    std::ifstream memory("/proc/meminfo");
    for (std::string name; memory >> name && name != "MemAvailable:";)
        memory.ignore(1000, '\n');
    memory >> free;
    std::erase_if(counts, [&](size_t count) {
        const bool large = bytesOf(count, KSCacheBitsFor(count)) + (1 << 30) > free * 1024;
        if (large) std::cerr << count << " entries need more memory than is free: left out\n";
        return large;
    });
    return counts;
}

void registerGrowth(const std::vector<size_t>& counts) {
    for (const size_t count : counts) {
        const int rounds = count > 20'000'000 ? 1 : 3;
        for (const auto& row : kWorks) {
            registerWork(std::string("grow-") + row.work, row.table, count, rounds,
                         [=](State& state) {
                             row.run(state, {count, KSCacheBitsFor(count)});
                         });
        }
    }
}

/// Ten million entries with 2^4 to 2^28 roots: few roots make deep trees. The advised number is
/// 2^25.
void registerBits() {
    for (uint32_t bits = 4; bits <= 28; bits += 4) {
        for (const auto& row : kWorks) {
            if (row.run != add<true> && std::string(row.table) != "batch") continue;
            registerWork(std::string("bits-") + row.work, row.table, bits, 1, [=](State& state) {
                row.run(state, {kEntriesForBits, bits});
            });
        }
    }
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    const auto counts = bench::countsFrom(
        argc, argv, {10'000, 100'000, 1'000'000, 10'000'000, 30'000'000, 100'000'000, 200'000'000});
    bench::registerGrowth(bench::fitting(counts));
    bench::registerBits();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    remove(bench::fileName().c_str());
}
