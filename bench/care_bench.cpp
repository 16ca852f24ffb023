// The maintenance of a cache, each beside a lower bound for the same bytes: checksums beside those
// of other libraries, save beside one write, load beside batched adds, the limit beside a copy of
// the pages.
#include <fcntl.h>
#include <libdeflate.h>
#include <malloc.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <map>

#include "bench/bench_keys.h"
#include "kscache/kscache_adler.h"

namespace bench {
namespace {

using benchmark::State;

constexpr int kRounds = 7;
constexpr size_t kRecordSize = 41;
constexpr size_t kNodeSize = 72;
constexpr size_t kBytesToFill = 120;  ///< bytes per entry of a filled cache, roots included

/// In a memory file system if there is one, so that the speed of the disk is not measured.
const std::string& fileName() {
    static const std::string name =
        std::string(access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") + "/care_bench.cache";
    return name;
}

const std::vector<KSCacheKey>& keysFor(size_t count) {
    static std::map<size_t, std::vector<Digest>> digests;
    static std::map<size_t, std::vector<KSCacheKey>> made;
    std::vector<KSCacheKey>& keys = made[count];
    if (keys.empty()) keys = keysOf(digests[count] = randomDigests(count, count));
    return keys;
}

std::unique_ptr<CacheTable> filled(size_t count, uint32_t areaSize) {
    auto table = std::make_unique<CacheTable>(count, areaSize);
    fill(*table, keysFor(count), &CacheTable::addBatch);
    return table;
}

std::unique_ptr<CacheTable> filled(size_t count) {
    return filled(count, KSCacheAreaFor(count));
}

/// A checksum of 42 KB in the processor's near caches, where a block lies when a file is written.
template <typename Sum>
void checksum(State& state, Sum sum) {
    static const std::vector<uint8_t> block(1024 * kRecordSize, 0xa7);
    constexpr size_t kTimes = 2000;
    uint32_t total = 1;
    const double seconds = secondsOf([&] {
        for (size_t i = 0; i < kTimes; ++i)
            total = sum(total, block.data(), block.size());
    });
    benchmark::DoNotOptimize(total);
    report(state, seconds, kTimes * block.size());
}

void save(State& state, size_t count) {
    static std::map<size_t, std::unique_ptr<CacheTable>> made;
    if (made[count] == nullptr) made[count] = filled(count);
    KSCache* cache = made[count]->handle();
    warmMemory(count * kRecordSize);
    report(state, secondsOf([&] { KSCacheSave(cache, fileName().c_str(), nullptr); }), count);
}

void writeAtOnce(State& state, size_t count) {
    static std::map<size_t, std::vector<char>> made;
    std::vector<char>& bytes = made[count];
    bytes.resize(count * kRecordSize, 'x');
    warmMemory(bytes.size());
    const auto write = [&] {
        const int fd = open(fileName().c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (::write(fd, bytes.data(), bytes.size()) < 0) abort();
        close(fd);
    };
    report(state, secondsOf(write), count);
}

void load(State& state, size_t count) {
    KSCacheSave(filled(count)->handle(), fileName().c_str(), nullptr);
    warmMemory(count * kBytesToFill);
    CacheTable table(count);
    uint64_t loaded = 0;
    const double seconds =
        secondsOf([&] { KSCacheLoad(table.handle(), fileName().c_str(), &loaded); });
    if (loaded != count) abort();
    report(state, seconds, count);
}

void addBatches(State& state, size_t count) {
    keysFor(count);
    warmMemory(count * kBytesToFill);
    std::unique_ptr<CacheTable> table;
    report(state, secondsOf([&] { table = filled(count); }), count);
}

/// A tenth of the entries has a lower reference count than the others, and is dropped.
void limit(State& state, size_t count) {
    const std::unique_ptr<CacheTable> table = filled(count);
    const std::vector<KSCacheKey>& keys = keysFor(count);
    for (size_t i = 0; i < count; i += 10)
        table->exists(keys.data() + i, std::min<size_t>(9, count - i));
    const auto megabytes = static_cast<uint32_t>(count * 9 / 10 * kNodeSize / (1 << 20) + 1);
    const double seconds = secondsOf([&] { KSCacheCheck(table->handle(), megabytes); });
    KSCacheStatsRecord stats{};
    KSCacheStats(table->handle(), &stats);
    if (stats.cachedItems != count * 9 / 10) abort();
    report(state, seconds, count);
}

uint64_t residentBytes() {
    unsigned long all = 0, pages = 0;
    FILE* file = fopen("/proc/self/statm", "r");
    if (file == nullptr || fscanf(file, "%lu %lu", &all, &pages) != 2) abort();
    fclose(file);
    return uint64_t{pages} * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

/// The resident bytes per entry of a filled cache, reported as if they were nanoseconds.
void memoryOf(State& state, size_t count, uint32_t areaSize) {
    keysFor(count);
    malloc_trim(0);
    const uint64_t before = residentBytes();
    const std::unique_ptr<CacheTable> table = filled(count, areaSize);
    report(state, 1e-9 * static_cast<double>(residentBytes() - before), count);
}

void memory(State& state, size_t count) {
    memoryOf(state, count, KSCacheAreaFor(count));
}

void memoryOfSmallPages(State& state, size_t count) {
    memoryOf(state, count, static_cast<uint32_t>(count / 200));
}

void nodesAndRoots(State& state, size_t count) {
    const size_t roots = size_t{1} << KSCacheBitsFor(count);
    report(state, 1e-9 * static_cast<double>(count * kNodeSize + roots * sizeof(void*)), count);
}

void copyPages(State& state, size_t count) {
    static std::map<size_t, std::vector<char>> from, to;
    from[count].resize(count * kNodeSize, 'x');
    to[count].resize(count * kNodeSize, 'y');
    const auto copy = [&] { memcpy(to[count].data(), from[count].data(), count * kNodeSize); };
    report(state, secondsOf(copy), count);
}

void registerAll(const std::vector<size_t>& counts) {
    const auto fold = [](auto sum) { return [sum](State& state) { checksum(state, sum); }; };
    registerWork("adler", "kspool", 1, 21, fold(kspool::adlerFold));
    registerWork("adler", "zlib", 1, 21,
                 fold([](uint32_t sum, const uint8_t* bytes, size_t length) {
                     return static_cast<uint32_t>(adler32_z(sum, bytes, length));
                 }));
    registerWork("adler", "libdeflate", 1, 21, fold(libdeflate_adler32));
    constexpr struct {
        const char* work;
        const char* table;
        void (*run)(State&, size_t);
    } kWorks[] = {
        {"save", "kspool", save},           {"save", "write", writeAtOnce},
        {"load", "kspool", load},           {"load", "add", addBatches},
        {"limit", "kspool", limit},         {"limit", "memcpy", copyPages},
        {"memory", "kspool", memory},       {"memory", "small", memoryOfSmallPages},
        {"memory", "least", nodesAndRoots},
    };
    for (const size_t count : counts) {
        for (const auto& row : kWorks) {
            registerWork(row.work, row.table, count, kRounds,
                         [=](State& state) { row.run(state, count); });
        }
    }
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    const auto counts = bench::countsFrom(argc, argv, {1'000'000, 10'000'000});
    bench::registerAll(counts);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    remove(bench::fileName().c_str());
}
