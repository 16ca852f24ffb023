// Long runs: caches in threads of their own, and the memory of one that is held to a limit.
//   soak_run threads OPERATIONS   eight caches in eight threads, so many operations each
//   soak_run limit OPERATIONS     one cache, so many adds
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

/// One cache beside its model.
void live(uint64_t seed, uint64_t operations) {
    std::mt19937_64 random(seed);
    const std::string number = std::to_string(seed);
    CacheModel model({.bits = 12, .tellsRepeats = seed % 2 == 0, .name = "thread " + number},
                     "/tmp/kspool-soak-" + std::to_string(getpid()) + "-" + number,
                     [&](uint64_t limit) { return random() % limit; });
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

/// Adds of new data and, more often the newer they are, of known ones. After each limit the pages
/// take no more than is documented, and the process no more than the pages and the roots: pages
/// that were released but not given back would add up.
void liveAtLimit(uint64_t operations) {
    constexpr uint64_t kMebibyte = uint64_t{1} << 20, kLimit = 64, kBetween = 200000;
    const uint64_t before = residentBytes();
    KSCache* cache = KSCacheCreate(10000, 20, 0, nullptr, nullptr);
    KSCacheStatsRecord stats{};
    uint64_t known = 0, promised = 0, most = 0;
    std::mt19937_64 random(1);
    for (uint64_t done = 1; done <= operations; ++done) {
        const uint64_t age = random() % (uint64_t{1} << (random() % 22));
        const uint64_t number = (done - std::min(done, age)) * 0x9e3779b97f4a7c15;
        const std::array<uint64_t, 4> digest = {number, number};
        if (KSCacheAdd(cache, digest.data(), 3, number, nullptr) != 0) ++known;
        if (done % kBetween != 0) continue;
        MUST(KSCacheCheck(cache, kLimit) == 0 && KSCacheStats(cache, &stats) == 0);
        promised = kLimit * kMebibyte + kLimit * kMebibyte / (stats.areaSize - 1) +
                   2 * uint64_t{stats.areaSize} * stats.nodeSize;
        most = std::max(most, stats.cacheSize);
        MUST(most <= promised);
        MUST(residentBytes() - before <= promised + (uint64_t{8} << stats.bits) + 8 * kMebibyte);
    }
    MUST(known > operations / 10 && known < operations / 10 * 9);
    KSCacheDestroy(cache);
    printf(
        "soak: %lu adds, %lu of them new, %lu checks, at most %lu bytes of pages, %lu promised\n",
        operations, operations - known, operations / kBetween, most, promised);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string what = argc == 3 ? argv[1] : "";
    if (what != "threads" && what != "limit") return 2;
    (what == "threads" ? liveInThreads : liveAtLimit)(std::strtoull(argv[2], nullptr, 10));
    return 0;
}
