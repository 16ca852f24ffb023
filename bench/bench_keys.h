// The random keys of all cache benchmarks.
#ifndef BENCH_KEYS_H
#define BENCH_KEYS_H

#include <algorithm>
#include <random>
#include <vector>

#include "bench/bench_run.h"
#include "bench/bench_tables.h"

namespace bench {

inline std::vector<Digest> randomDigests(size_t count, uint64_t seed) {
    std::mt19937_64 random(seed);
    std::vector<Digest> digests(count);
    for (Digest& digest : digests) {
        for (size_t at = 0; at < digest.size(); at += sizeof(uint64_t)) {
            const uint64_t word = random();
            memcpy(digest.data() + at, &word, sizeof word);
        }
    }
    return digests;
}

inline std::vector<KSCacheKey> keysOf(const std::vector<Digest>& digests) {
    std::vector<KSCacheKey> keys;
    keys.reserve(digests.size());
    for (const Digest& digest : digests)
        keys.push_back({digest.data(), CR_FP_SHA256});
    return keys;
}

template <typename Items>
Items shuffled(Items items) {
    std::shuffle(items.begin(), items.end(), std::mt19937_64(7));
    return items;
}

/// Fills a table with keys whose values are their numbers; `add` is one of its calls.
template <typename Table>
void fill(Table& table, const std::vector<KSCacheKey>& keys,
          size_t (Table::*add)(const KSCacheKey*, size_t, uint64_t) = &Table::add) {
    for (size_t i = 0; i < keys.size(); i += kStretch) {
        const size_t count = std::min(kStretch, keys.size() - i);
        if ((table.*add)(keys.data() + i, count, i) != count) abort();
    }
}

}  // namespace bench

#endif
