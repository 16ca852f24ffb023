// Long runs: caches in threads of their own, and one cache that is held to a limit.
//   soak_run threads OPERATIONS   eight caches in eight threads, so many operations each
//   soak_run limit OPERATIONS     one cache, so many operations
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "kscache.h"
#include "platform/support.h"
#include "tests/support/cache_model.h"
#include "tests/support/must.h"

namespace {

/// The digest of a number: well spread, like those of data.
struct Digest {
    std::array<uint64_t, 4> words;
    explicit Digest(uint64_t number) {
        for (uint64_t& word : words) {
            number += 0x9e3779b97f4a7c15;
            uint64_t mixed = number;
            mixed = (mixed ^ mixed >> 30) * 0xbf58476d1ce4e5b9;
            mixed = (mixed ^ mixed >> 27) * 0x94d049bb133111eb;
            word = mixed ^ mixed >> 31;
        }
    }
};

KSCacheStatsRecord statsOf(const KSCache* cache) {
    KSCacheStatsRecord stats;
    MUST(KSCacheStats(cache, &stats) == 0);
    return stats;
}

/// One cache beside its model.
void live(uint64_t seed, uint64_t operations) {
    std::mt19937_64 random(seed);
    const std::string path =
        "/tmp/kspool-soak-" + std::to_string(getpid()) + "-" + std::to_string(seed);
    CacheModel model([&](uint64_t limit) { return random() % limit; }, path, 12,
                     seed % 2 == 0 ? CacheModel::Repeats::Told : CacheModel::Repeats::NotTold);
    for (uint64_t steps = 0; model.operations() < operations; ++steps) {
        if (model.step() && steps % 16 == 0) model.compareAll();
    }
    model.compareAll();
}

void liveInThreads(uint64_t operations) {
    std::atomic<uint64_t> messages = 0;
    qlxSetSink([](uint32_t, uint32_t, const char*,
                  void* arg) { ++*static_cast<std::atomic<uint64_t>*>(arg); },
               &messages);
    std::vector<std::thread> threads;
    std::atomic<int> living = 8;
    for (uint64_t seed = 0; seed < 8; ++seed) {
        threads.emplace_back([=, &living] {
            live(seed, operations);
            --living;
        });
    }
    // Traces come and go meanwhile.
    std::atomic_ref<int> trace(*__qlxlog_trace_location());
    while (living > 0) {
        trace = 1 - trace;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    for (std::thread& thread : threads)
        thread.join();
    qlxSetSink(nullptr, nullptr);
    printf("soak: 8 threads, %lu operations each, %lu messages\n",
           static_cast<unsigned long>(operations), static_cast<unsigned long>(messages.load()));
}

/// Bytes of memory that the process has.
uint64_t residentBytes() {
    uint64_t pages = 0;
    std::ifstream("/proc/self/statm").ignore(64, ' ') >> pages;
    return pages * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

/// Mostly new data, and looks at what came before, the latest most often; a limit after each so
/// many operations. What the pages may take then, its documentation says.
void liveAtLimit(uint64_t operations) {
    constexpr uint32_t kLimit = 64;
    constexpr uint64_t kLimitBytes = uint64_t{kLimit} << 20;
    constexpr uint64_t kBetween = 200000;
    const uint64_t before = residentBytes();
    KSCache* cache = KSCacheCreate(10000, 20, 0, nullptr, nullptr);
    const KSCacheStatsRecord empty = statsOf(cache);
    const uint64_t page = uint64_t{empty.areaSize} * empty.nodeSize;
    const uint64_t promised = kLimitBytes + kLimitBytes / (empty.areaSize - 1) + 2 * page;
    const uint64_t around = (uint64_t{8} << empty.bits) + (uint64_t{8} << 20);
    std::mt19937_64 random(1);
    uint64_t added = 0, hits = 0, checks = 0, most = 0, mostResident = 0;
    for (uint64_t done = 1; done <= operations; ++done) {
        const uint64_t what = random() % 16;
        const uint64_t age = random() % (uint64_t{1} << (random() % 22));
        const uint64_t number = what < 7 || age >= added ? added : added - 1 - age;
        const Digest digest(number);
        uint64_t value = 0;
        if (number == added) {
            MUST(KSCacheAdd(cache, &digest, 3, number, nullptr) == 0);
            ++added;
        } else if (what == 15) {
            KSCacheDelete(cache, &digest, 3);
        } else if (KSCacheExists(cache, &digest, 3, &value) == 0) {
            MUST(value == number);
            ++hits;
        }
        if (done % kBetween != 0) continue;
        MUST(KSCacheCheck(cache, kLimit) == 0);
        ++checks;
        most = std::max(most, statsOf(cache).cacheSize);
        mostResident = std::max(mostResident, residentBytes() - before);
        MUST(most <= promised);
        MUST(mostResident <= promised + around);
    }
    MUST(hits > operations / 10 && added > operations / 10);  // it was at work
    KSCacheDestroy(cache);
    printf(
        "soak: %lu operations at a limit of %lu bytes, %lu entries added, %lu checks, at most "
        "%lu bytes of pages afterwards, %lu promised, %lu resident\n",
        static_cast<unsigned long>(operations), static_cast<unsigned long>(kLimitBytes),
        static_cast<unsigned long>(added), static_cast<unsigned long>(checks),
        static_cast<unsigned long>(most), static_cast<unsigned long>(promised),
        static_cast<unsigned long>(mostResident));
}

}  // namespace

int main(int argc, char** argv) {
    const std::string what = argc == 3 ? argv[1] : "";
    if (what != "threads" && what != "limit") return 2;
    const uint64_t operations = std::strtoull(argv[2], nullptr, 10);
    if (what == "threads") {
        liveInThreads(operations);
    } else {
        liveAtLimit(operations);
    }
    return 0;
}
