// Timing and registration, shared by the benchmarks.
#ifndef BENCH_RUN_H
#define BENCH_RUN_H

#include <benchmark/benchmark.h>
#include <sys/mman.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace bench {

template <typename Work>
double secondsOf(Work work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// Registers "WORK/TABLE/COUNT". `run` takes the benchmark's state, does one round and times it
/// itself, so that the preparation of a round is not measured.
template <typename Run>
void registerWork(const std::string& work, const std::string& table, size_t count, int rounds,
                  Run run) {
    const std::string title = work + "/" + table + "/" + std::to_string(count);
    benchmark::RegisterBenchmark(title.c_str(), run)
        ->Iterations(1)
        ->Repetitions(rounds)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
}

/// Reports the time of one round.
inline void report(benchmark::State& state, double seconds, size_t items) {
    for (auto _ : state)
        state.SetIterationTime(seconds);
    state.SetItemsProcessed(static_cast<int64_t>(items));
}

/// Touches as much memory as a round needs and frees it, so that no table pays for the host's first
/// mapping of it. A virtual machine returns memory that was free for seconds to its host, so this
/// is done before each round that allocates, and not with less than 2 GB, since the system need not
/// hand out the memory that was freed last.
inline void warmMemory(size_t bytes) {
    constexpr size_t kHugePage = size_t{2} << 20, kLeast = size_t{2} << 30;
    bytes = (std::max(bytes, kLeast) + kHugePage - 1) / kHugePage * kHugePage;
    void* memory = std::aligned_alloc(kHugePage, bytes);
    if (memory == nullptr) abort();
    madvise(memory, bytes, MADV_HUGEPAGE);
    memset(memory, 1, bytes);
    benchmark::DoNotOptimize(memory);
    free(memory);
}

/// Numbers of entries from the command line, after the framework took its options; else the usual.
inline std::vector<size_t> countsFrom(int argc, char** argv, const std::vector<size_t>& usual) {
    std::vector<size_t> counts;
    for (int i = 1; i < argc; ++i)
        counts.push_back(std::stoul(argv[i]));
    return counts.empty() ? usual : counts;
}

}  // namespace bench

#endif
