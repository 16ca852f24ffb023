// The random keys of all cache benchmarks.
#ifndef BENCH_KEYS_H
#define BENCH_KEYS_H

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

}  // namespace bench

#endif
