// kspool-agent scan: how much of a tree is the same data twice, as the cache sees it.
#ifndef TOOLS_AGENT_SCAN_H
#define TOOLS_AGENT_SCAN_H

#include <cstdint>
#include <string>
#include <vector>

#include "kscache.h"
#include "tools/agent/segments.h"

namespace agent {

struct ScanOptions {
    std::vector<std::string> paths;
    uint64_t segmentSize = uint64_t{128} << 10;
    std::string digest = "sha256";
    uint32_t bits = 0;      ///< 0: chosen from the number of segments
    uint32_t areaSize = 0;  ///< 0: chosen from the number of segments
    bool lock = false;
    bool trace = false;
    bool json = false;
    bool oneFileSystem = false;
};

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

/// Scans and reports; returns the program's exit code.
int scan(const ScanOptions& options);

/// The report on standard output, for people or as JSON.
void printScan(const ScanOptions& options, const ScanResult& result);

}  // namespace agent

#endif
