// One operation of the library, a fixed number of times, for counting its instructions. Usage:
// op_counts OPERATION, or without one to list them. "X (C++)" is the operation X through
// kspool.hpp.
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "kscache.h"
#include "kspool.hpp"
#include "mb.h"
#include "mb/mb_int.h"
#include "platform/status.h"

namespace {

constexpr size_t kEntries = 20'000;

/// Keys that look random and are the same in each run: the first half is known to the cache.
struct Keys {
    std::vector<std::array<uint64_t, 4>> digests{2 * kEntries};
    std::vector<KSCacheKey> keys{2 * kEntries};
    std::vector<uint64_t> values = std::vector<uint64_t>(2 * kEntries);

    Keys() {
        uint64_t state = 1;
        for (size_t i = 0; i < digests.size(); ++i) {
            for (uint64_t& word : digests[i]) {
                state = state * 6364136223846793005 + 1442695040888963407;
                word = (state ^ state >> 29) * 0xbf58476d1ce4e5b9;
                word ^= word >> 32;
            }
            keys[i] = {digests[i].data(), CR_FP_SHA256};
        }
    }
};

const Keys kKeys;
const std::string kFile = "/tmp/op-counts-" + std::to_string(getpid());

KSCache* newCache(bool filled) {
    KSCache* cache = KSCacheCreate(0, KSCacheBitsFor(kEntries), 0, nullptr, nullptr);
    const size_t known = filled ? kEntries : 0;
    KSCacheAddBatch(cache, kKeys.keys.data(), kKeys.values.data(), nullptr, known, nullptr);
    return cache;
}

/// What an operation works on.
struct Work {
    KSCache* cache;
    kspool::Cache* owner;
    size_t first;  ///< key
    char* answer;
};

template <typename Call>
void each(const Work& work, Call call) {
    for (size_t i = 0; i < kEntries; ++i)
        call(kKeys.keys[work.first + i].fingerprint);
}

void add(const Work& w) {
    each(w, [&](const void* key) { KSCacheAdd(w.cache, key, CR_FP_SHA256, 1, nullptr); });
}
void exists(const Work& w) {
    each(w, [&](const void* key) { KSCacheExists(w.cache, key, CR_FP_SHA256, nullptr); });
}
void existsBatch(const Work& w) {
    KSCacheExistsBatch(w.cache, &kKeys.keys[w.first], kEntries, nullptr, nullptr);
}
void addBatch(const Work& w) {
    KSCacheAddBatch(w.cache, kKeys.keys.data(), kKeys.values.data(), nullptr, kEntries, nullptr);
}

/// Batches so small that the cost of a call shows.
template <typename Call>
void eights(Call call) {
    for (size_t i = 0; i < kEntries; i += 8)
        call(std::span(kKeys.keys).subspan(i, 8), std::span(kKeys.values).subspan(i, 8));
}
std::array<uint64_t, 8> found;
std::array<uint32_t, 8> statuses;

void hitEights(const Work& w) {
    eights([&](auto keys, auto) {
        KSCacheExistsBatch(w.cache, keys.data(), 8, found.data(), statuses.data());
    });
}
void hitEightsCpp(const Work& w) {
    eights([&](auto keys, auto) { (void)w.owner->existsBatch(keys, found, statuses); });
}
void addEights(const Work& w) {
    eights([&](auto keys, auto values) {
        KSCacheAddBatch(w.cache, keys.data(), values.data(), nullptr, 8, statuses.data());
    });
}
void addEightsCpp(const Work& w) {
    eights([&](auto keys, auto values) { (void)w.owner->addBatch(keys, values, statuses); });
}
void walkLines(const Work& w) {
    MBPOCursor cursor{};
    cursor.nextLine = w.answer;
    cursor.poCount = kEntries;
    char* line = nullptr;
    while (MBPOStringFindNext(&cursor, &line) == 0) {
    }
}

constexpr struct {
    const char* name;
    void (*run)(const Work&);
    bool filled;   ///< starts with a cache that holds the known keys
    bool unknown;  ///< is given the others
} kOperations[] = {
    {"add", add, false, false},
    {"add known", add, true, false},
    {"add batch", addBatch, false, false},
    {"hit", exists, true, false},
    {"hit batch", existsBatch, true, false},
    {"miss", exists, true, true},
    {"miss batch", existsBatch, true, true},
    {"fetch",
     [](const Work& w) {
         each(w, [&](const void* key) { KSCacheFetch(w.cache, key, CR_FP_SHA256, nullptr); });
     },
     true, false},
    {"fetch batch",
     [](const Work& w) {
         KSCacheFetchBatch(w.cache, kKeys.keys.data(), kEntries, nullptr, nullptr);
     },
     true, false},
    {"delete",
     [](const Work& w) {
         each(w, [&](const void* key) { KSCacheDelete(w.cache, key, CR_FP_SHA256); });
     },
     true, false},
    {"hit eights", hitEights, true, false},
    {"hit eights (C++)", hitEightsCpp, true, false},
    {"add eights", addEights, false, false},
    {"add eights (C++)", addEightsCpp, false, false},
    {"save", [](const Work& w) { KSCacheSave(w.cache, kFile.c_str(), nullptr); }, true, false},
    {"load", [](const Work& w) { KSCacheLoad(w.cache, kFile.c_str(), nullptr); }, false, false},
    {"limit check", [](const Work& w) { KSCacheCheck(w.cache, 1); }, true, false},
    {"cursor", walkLines, false, false},
};

}  // namespace

/// Instructions are counted while this runs.
extern "C" __attribute__((noinline)) void countedOperation(size_t row, const void* work) {
    kOperations[row].run(*static_cast<const Work*>(work));
}

int main(int argc, char** argv) {
    for (size_t i = 0; i < std::size(kOperations); ++i) {
        const auto& row = kOperations[i];
        if (argc < 2) {
            puts(row.name);
            continue;
        }
        if (strcmp(row.name, argv[1]) != 0) continue;
        std::string answer;
        for (size_t line = 0; line < kEntries; ++line)
            answer += std::string(100 + line % 40, 'x') + "\n";
        KSCache* saved = newCache(true);  // for the load
        KSCacheSave(saved, kFile.c_str(), nullptr);
        KSCacheDestroy(saved);
        kspool::Cache cache(newCache(row.filled));
        const Work work{cache.get(), &cache, row.unknown ? kEntries : 0, answer.data()};
        countedOperation(i, &work);
        unlink(kFile.c_str());
        return 0;
    }
    return argc < 2 ? 0 : 2;
}
