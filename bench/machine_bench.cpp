// The memory of the machine: the latency of dependent reads, and a copy.
#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <random>
#include <vector>

#include "bench/bench_run.h"

namespace bench {
namespace {

using benchmark::State;

constexpr int kRounds = 7;
constexpr size_t kLine = 64;
constexpr size_t kReads = 1'000'000;
constexpr size_t kHugePage = size_t{2} << 20;

/// Memory in huge pages whose lines form one random cycle: each holds the address of the next.
char* memoryOf(size_t bytes) {
    static std::map<size_t, char*> made;  // kept until the program ends
    char*& memory = made[bytes];
    if (memory != nullptr) return memory;
    memory = static_cast<char*>(std::aligned_alloc(kHugePage, bytes));
    if (memory == nullptr) abort();
    madvise(memory, bytes, MADV_HUGEPAGE);
    std::vector<uint32_t> order(bytes / kLine);
    for (uint32_t i = 0; i < order.size(); ++i)
        order[i] = i;
    std::shuffle(order.begin(), order.end(), std::mt19937_64(1));
    for (size_t i = 0; i < order.size(); ++i) {
        char* next = memory + kLine * order[(i + 1) % order.size()];
        memcpy(memory + kLine * order[i], &next, sizeof next);
    }
    return memory;
}

void latency(State& state, size_t bytes) {
    static std::map<size_t, char*> reached;
    char*& line = reached.try_emplace(bytes, memoryOf(bytes)).first->second;
    const double seconds = secondsOf([&] {
        for (size_t i = 0; i < kReads; ++i)
            memcpy(&line, line, sizeof(char*));
    });
    report(state, seconds, kReads);
}

void copy(State& state, size_t bytes) {
    const char* from = memoryOf(bytes);
    static std::map<size_t, std::vector<char>> made;
    std::vector<char>& to = made[bytes];
    to.resize(bytes);
    report(state, secondsOf([&] { memcpy(to.data(), from, bytes); }), bytes / kLine);
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    constexpr struct {
        const char* work;
        void (*run)(benchmark::State&, size_t);
    } kWorks[] = {{"latency", bench::latency}, {"copy", bench::copy}};
    // Roots and nodes of a million entries, then of ten million.
    for (const size_t megabytes : {16U, 72U, 256U, 720U}) {
        const size_t bytes = megabytes << 20;
        for (const auto& row : kWorks) {
            bench::registerWork(row.work, "machine", bytes, bench::kRounds,
                                [=](benchmark::State& state) { row.run(state, bytes); });
        }
    }
    bench::warmMemory(size_t{3} << 30);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
