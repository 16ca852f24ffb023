// The report of a scan, for people and as JSON.
#ifndef TOOLS_AGENT_SCAN_REPORT_H
#define TOOLS_AGENT_SCAN_REPORT_H

#include <cstdint>

#include "kscache.h"
#include "tools/agent/scan.h"

namespace agent {

struct Amount {
    uint64_t segments = 0;
    uint64_t bytes = 0;

    void count(uint64_t length) {
        ++segments;
        bytes += length;
    }
};

struct ScanResult {
    uint64_t files = 0;    ///< read to their ends
    uint64_t skipped = 0;  ///< files and folders that could not be read, or not wholly
    Amount unique;         ///< met for the first time, and cached
    Amount sameFile;       ///< repeats whose first copy is in the same file
    Amount otherFile;      ///< repeats whose first copy is in another one
    Amount uncached;       ///< not known, and the cache could not take them
    double seconds = 0;
    double cacheSeconds = 0;
    KSCacheStatsRecord cache{};

    Amount repeated() const {
        return {sameFile.segments + otherFile.segments, sameFile.bytes + otherFile.bytes};
    }
    Amount all() const {
        return {unique.segments + repeated().segments + uncached.segments,
                unique.bytes + repeated().bytes + uncached.bytes};
    }
};

/// Prints on standard output.
void printScan(const ScanOptions& options, const ScanResult& result);

}  // namespace agent

#endif
