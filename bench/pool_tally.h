// The kinds of operations of a pool's agents, and what is counted of each.
#ifndef BENCH_POOL_TALLY_H
#define BENCH_POOL_TALLY_H

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace pool {

enum Kind : uint8_t { kRecord, kByName, kByFolder, kByPrefix, kByClient, kExpire, kKinds };

struct KindRow {
    const char* name;  ///< in --mix and in the JSON report
    const char* title;
    bool isQuery;
};

constexpr KindRow kKindRows[kKinds] = {
    {"record", "record", false},         {"name", "query by name", true},
    {"folder", "query by folder", true}, {"prefix", "query by name prefix", true},
    {"client", "query by client", true}, {"expire", "expire", false},
};

/// How often a mix chooses each kind, relative to the sum.
using Weights = std::array<uint64_t, kKinds>;

/// Times in classes of constant memory: each power of two nanoseconds is divided into 128 classes,
/// so the middle of a class differs from each time in it by less than 0.4 %. The longest time is
/// exact.
class Latencies {
  public:
    void add(uint64_t nanoseconds) {
        ++classes_[classOf(nanoseconds)];
        ++count_;
        sum_ += nanoseconds;
        worst_ = std::max(worst_, nanoseconds);
    }
    void add(const Latencies& other) {
        for (size_t i = 0; i < kClasses; ++i)
            classes_[i] += other.classes_[i];
        count_ += other.count_;
        sum_ += other.sum_;
        worst_ = std::max(worst_, other.worst_);
    }

    uint64_t count() const { return count_; }
    /// In seconds, 0 without operations.
    double mean() const {
        return count_ > 0 ? static_cast<double>(sum_) / static_cast<double>(count_) * 1e-9 : 0;
    }
    double worst() const { return static_cast<double>(worst_) * 1e-9; }
    /// The time in which a share of the operations was over.
    double quantile(double share) const {
        uint64_t left = static_cast<uint64_t>(std::ceil(share * static_cast<double>(count_)));
        for (size_t i = 0; i < kClasses; ++i) {
            if (left <= classes_[i]) return std::min(middleOf(i) * 1e-9, worst());
            left -= classes_[i];
        }
        return worst();
    }

  private:
    static constexpr unsigned kBits = 7;
    static constexpr unsigned kLongest =
        42;  ///< 2^42 ns are 73 minutes; the last class has longer ones
    static constexpr size_t kClasses = (size_t{kLongest - kBits} + 1) << kBits;

    static size_t classOf(uint64_t nanoseconds) {
        const unsigned width = static_cast<unsigned>(std::bit_width(nanoseconds));
        const unsigned shift = width > kBits + 1 ? width - kBits - 1 : 0;
        const uint64_t at = (uint64_t{shift} << kBits) + (nanoseconds >> shift);
        return static_cast<size_t>(std::min<uint64_t>(at, kClasses - 1));
    }
    static double middleOf(size_t at) {
        const size_t shift = std::max<size_t>(at >> kBits, 1) - 1;
        const auto least = static_cast<double>(at - (shift << kBits));
        return std::ldexp(shift > 0 ? least + 0.5 : least, static_cast<int>(shift));
    }

    std::vector<uint64_t> classes_ = std::vector<uint64_t>(kClasses);
    uint64_t count_ = 0;
    uint64_t sum_ = 0;
    uint64_t worst_ = 0;
};

/// Beside the statuses of the library: an answer that is valid and not what was recorded.
constexpr uint32_t kWrongAnswer = UINT32_MAX;

struct Failure {
    uint64_t count = 0;
    std::string example;  ///< what the first one said, may be empty
};

struct Tally {
    Latencies latencies;  ///< of the operations that succeeded
    uint64_t pos = 0;     ///< recorded, found or expired by these
    uint64_t failed = 0;
    std::map<uint32_t, Failure> failures;  ///< by status

    uint64_t operations() const { return latencies.count() + failed; }
    void add(const Tally& other) {
        latencies.add(other.latencies);
        pos += other.pos;
        failed += other.failed;
        for (const auto& [status, failure] : other.failures) {
            Failure& own = failures[status];
            if (own.count == 0) own.example = failure.example;
            own.count += failure.count;
        }
    }
};

using Tallies = std::array<Tally, kKinds>;

}  // namespace pool

#endif
