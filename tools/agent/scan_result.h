// What a scan has found.
#ifndef TOOLS_AGENT_SCAN_RESULT_H
#define TOOLS_AGENT_SCAN_RESULT_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "kscache.h"

namespace agent {

struct Amount {
    uint64_t segments = 0;
    uint64_t bytes = 0;

    void count(uint64_t length) {
        ++segments;
        bytes += length;
    }
    Amount& operator+=(const Amount& other) {
        segments += other.segments;
        bytes += other.bytes;
        return *this;
    }
};

enum class Fate : size_t {
    kUnique,     ///< found for the first time, and cached
    kSameFile,   ///< a repeat whose first copy is in the same file
    kOtherFile,  ///< a repeat whose first copy is in another file
    kEarlier,    ///< known from an earlier scan
    kUncached,   ///< not known, and could not be added
    kCount
};

/// The result for one segment size.
struct SizeResult {
    uint64_t segmentSize = 0;
    std::array<Amount, static_cast<size_t>(Fate::kCount)> amounts{};
    double cacheSeconds = 0;
    KSCacheStatsRecord cache{};

    Amount& of(Fate fate) { return amounts[static_cast<size_t>(fate)]; }
    const Amount& of(Fate fate) const { return amounts[static_cast<size_t>(fate)]; }

    Amount repeated() const {
        Amount sum = of(Fate::kSameFile);
        sum += of(Fate::kOtherFile);
        return sum += of(Fate::kEarlier);
    }
    Amount all() const {
        Amount sum;
        for (const Amount& amount : amounts)
            sum += amount;
        return sum;
    }
    /// Bytes of data per byte that must be stored; 0 if nothing must be stored.
    double dedupRatio() const;
    uint64_t rootBytes() const { return (uint64_t{1} << cache.bits) * sizeof(void*); }
    uint64_t cacheBytes() const { return cache.cacheSize + rootBytes(); }
};

struct ScanResult {
    uint64_t files = 0;    ///< files read completely
    uint64_t skipped = 0;  ///< files and folders that could not be read completely
    bool interrupted = false;
    double seconds = 0;
    std::vector<SizeResult> sizes;
};

/// part / whole, and 0 for 0 / 0.
inline double ratio(double part, double whole) {
    return whole > 0 ? part / whole : 0;
}
inline double ratio(uint64_t part, uint64_t whole) {
    return ratio(static_cast<double>(part), static_cast<double>(whole));
}

inline double SizeResult::dedupRatio() const {
    return ratio(all().bytes, all().bytes - repeated().bytes);
}

}  // namespace agent

#endif
