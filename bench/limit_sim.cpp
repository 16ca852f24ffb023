// The hit rate under a memory limit: streams of fingerprints are looked up in a cache that is
// limited to a part of the memory that they need, beside an LRU cache and the optimal one (Belady),
// which knows the future.
//
// Usage: limit_sim OUT.json
#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <list>
#include <nlohmann/json.hpp>
#include <queue>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "kscache.h"
#include "platform/status.h"

namespace {

using Clock = std::chrono::steady_clock;
using Stream = std::vector<uint32_t>;  ///< numbers of keys, from 0 on

constexpr uint32_t kKeys = 400'000;
constexpr size_t kLookups = 8'000'000;
constexpr size_t kNodeSize = 72;
constexpr uint32_t kAreaSize = 1024;
/// Lookups between two checks: a hundredth of the keys.
constexpr size_t kBetweenChecks = kKeys / 100;

/// Keys by a Zipf distribution: the k-th key is k^-exponent times as frequent as the first.
class Zipf {
  public:
    explicit Zipf(double exponent) : sums_(kKeys) {
        double sum = 0;
        for (uint32_t k = 0; k < kKeys; ++k)
            sums_[k] = sum += std::pow(k + 1, -exponent);
    }
    template <typename Random>
    uint32_t operator()(Random& random) const {
        std::uniform_real_distribution<double> uniform(0, sums_.back());
        const auto at = std::upper_bound(sums_.begin(), sums_.end(), uniform(random));
        return std::min(static_cast<uint32_t>(at - sums_.begin()), kKeys - 1);
    }

  private:
    std::vector<double> sums_;
};

Stream zipf(double exponent) {
    const Zipf pick(exponent);
    std::mt19937_64 random(1);
    Stream stream(kLookups);
    for (uint32_t& key : stream)
        key = pick(random);
    return stream;
}

/// Zipf with scans: each fifth of the lookups ends with kKeys keys that occur only once.
Stream scans() {
    constexpr size_t kStretches = 5;
    const Zipf pick(0.9);
    std::mt19937_64 random(1);
    Stream stream;
    uint32_t fresh = kKeys;
    for (size_t stretch = 0; stretch < kStretches; ++stretch) {
        for (size_t i = 0; i < kLookups / kStretches - kKeys; ++i)
            stream.push_back(pick(random));
        for (uint32_t i = 0; i < kKeys; ++i)
            stream.push_back(fresh++);
    }
    return stream;
}

/// A cyclic scan: the same data each day, in the same order, with a fiftieth replaced each time.
Stream days() {
    std::mt19937_64 random(1);
    Stream data(kKeys), stream;
    uint32_t fresh = 0;
    for (uint32_t& key : data)
        key = fresh++;
    while (stream.size() < kLookups) {
        stream.insert(stream.end(), data.begin(), data.end());
        for (uint32_t i = 0; i < kKeys / 50; ++i)
            data[random() % kKeys] = fresh++;
    }
    return stream;
}

struct Outcome {
    size_t hits = 0;
    size_t checks = 0;
    size_t dropped = 0;
    double checkSeconds = 0;
    double longestCheck = 0;
    double seconds = 0;
    size_t mostEntries = 0;
};

std::array<uint64_t, 4> digestOf(uint32_t key) {
    std::array<uint64_t, 4> digest{};
    uint64_t state = key + 1;
    for (uint64_t& word : digest) {
        state = state * 6364136223846793005 + 1442695040888963407;
        word = (state ^ state >> 31) * 0xbf58476d1ce4e5b9;
        word ^= word >> 32;
    }
    return digest;
}

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

uint64_t entriesOf(const KSCache* cache) {
    KSCacheStatsRecord stats{};
    KSCacheStats(cache, &stats);
    return stats.cachedItems;
}

/// One timed check; only checks that dropped entries are counted.
void check(KSCache* cache, uint32_t megabytes, Outcome& outcome) {
    const uint64_t before = entriesOf(cache);
    const auto start = Clock::now();
    KSCacheCheck(cache, megabytes);
    const double seconds = secondsSince(start);
    outcome.mostEntries = std::max<size_t>(outcome.mostEntries, before);
    outcome.checkSeconds += seconds;
    if (entriesOf(cache) == before) return;
    ++outcome.checks;
    outcome.dropped += before - entriesOf(cache);
    outcome.longestCheck = std::max(outcome.longestCheck, seconds);
}

/// Hits of a cache to which nothing is added once it is full.
size_t untilFull(const Stream& stream, size_t room) {
    KSCache* cache = KSCacheCreate(kAreaSize, KSCacheBitsFor(kKeys), 0, nullptr, nullptr);
    size_t hits = 0, entries = 0;
    for (const uint32_t key : stream) {
        const auto digest = digestOf(key);
        if (KSCacheExists(cache, digest.data(), CR_FP_SHA256, nullptr) == CR_STATUS_OK) {
            ++hits;
        } else if (entries < room) {
            entries += KSCacheAdd(cache, digest.data(), CR_FP_SHA256, key, nullptr) == CR_STATUS_OK;
        }
    }
    KSCacheDestroy(cache);
    return hits;
}

Outcome limited(const Stream& stream, uint32_t megabytes) {
    KSCache* cache = KSCacheCreate(kAreaSize, KSCacheBitsFor(kKeys), 0, nullptr, nullptr);
    Outcome outcome;
    const auto start = Clock::now();
    for (size_t i = 0; i < stream.size(); ++i) {
        const auto digest = digestOf(stream[i]);
        if (KSCacheExists(cache, digest.data(), CR_FP_SHA256, nullptr) == CR_STATUS_OK) {
            ++outcome.hits;
        } else {
            KSCacheAdd(cache, digest.data(), CR_FP_SHA256, stream[i], nullptr);
        }
        if (i % kBetweenChecks == 0) check(cache, megabytes, outcome);
    }
    outcome.seconds = secondsSince(start);
    KSCacheDestroy(cache);
    return outcome;
}

/// Hits of an LRU cache of `room` entries.
size_t lastUsed(const Stream& stream, size_t room) {
    std::list<uint32_t> order;
    std::unordered_map<uint32_t, std::list<uint32_t>::iterator> where;
    size_t hits = 0;
    for (const uint32_t key : stream) {
        const auto known = where.find(key);
        if (known != where.end()) {
            ++hits;
            order.splice(order.begin(), order, known->second);
            continue;
        }
        order.push_front(key);
        where[key] = order.begin();
        if (where.size() <= room) continue;
        where.erase(order.back());
        order.pop_back();
    }
    return hits;
}

/// Hits of the optimal cache of `room` entries: it drops the entry whose next use is farthest away.
size_t ideal(const Stream& stream, size_t room) {
    const auto never = static_cast<uint32_t>(stream.size());
    const uint32_t keys = *std::max_element(stream.begin(), stream.end()) + 1;
    std::vector<uint32_t> next(stream.size()), latest(keys, never);
    for (size_t i = stream.size(); i-- > 0;) {
        next[i] = latest[stream[i]];
        latest[stream[i]] = static_cast<uint32_t>(i);
    }
    std::vector<uint32_t> nextOf(keys, 0);  // next use of a key in the cache; 0: not in the cache
    std::priority_queue<std::pair<uint32_t, uint32_t>> farthest;
    size_t hits = 0, kept = 0;
    for (size_t i = 0; i < stream.size(); ++i) {
        const uint32_t key = stream[i];
        nextOf[key] != 0 ? ++hits : ++kept;
        nextOf[key] = next[i];
        farthest.emplace(next[i], key);
        while (kept > room) {
            const auto [when, victim] = farthest.top();
            farthest.pop();
            if (nextOf[victim] != when) continue;  // stale: used since
            nextOf[victim] = 0;
            --kept;
        }
    }
    return hits;
}

nlohmann::ordered_json run(const std::string& name, const Stream& stream) {
    nlohmann::ordered_json rows;
    for (const uint32_t percent : {10U, 25U, 50U}) {
        const auto megabytes = static_cast<uint32_t>(kKeys * kNodeSize / 100 * percent / (1 << 20));
        const size_t room = (size_t{megabytes} << 20) / kNodeSize;
        const Outcome o = limited(stream, megabytes);
        const auto share = [&](size_t hits) {
            return static_cast<double>(hits) / static_cast<double>(stream.size());
        };
        rows.push_back({{"stream", name},
                        {"percent", percent},
                        {"megabytes", megabytes},
                        {"kspool", share(o.hits)},
                        {"until full", share(untilFull(stream, room))},
                        {"last used", share(lastUsed(stream, room))},
                        {"ideal", share(ideal(stream, room))},
                        {"lookups", stream.size()},
                        {"room", room},
                        {"most entries", o.mostEntries},
                        {"checks", o.checks},
                        {"dropped", o.dropped},
                        {"check seconds", o.checkSeconds},
                        {"longest check", o.longestCheck},
                        {"seconds", o.seconds}});
        fprintf(stderr, "%s\n", rows.back().dump().c_str());
    }
    return rows;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    const std::pair<const char*, std::function<Stream()>> streams[] = {
        {"Zipf 0.7", [] { return zipf(0.7); }},
        {"Zipf 0.9", [] { return zipf(0.9); }},
        {"Zipf 1.1", [] { return zipf(1.1); }},
        {"Zipf 0.9 with scans", scans},
        {"the same data each day", days}};
    nlohmann::ordered_json all;
    for (const auto& [name, make] : streams) {
        for (auto& row : run(name, make()))
            all.push_back(row);
    }
    std::ofstream(argv[1]) << all.dump(1) << "\n";
}
