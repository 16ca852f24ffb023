// kspool-agent scan: measures by a cache how much data of some trees is repeated.
#ifndef TOOLS_AGENT_SCAN_H
#define TOOLS_AGENT_SCAN_H

#include <cstdint>
#include <string>
#include <vector>

#include "tools/agent/walk.h"
#include "tools/shared/failure.h"

namespace agent {

struct ScanOptions {
    WalkOptions walk;
    uint64_t segmentSize = uint64_t{128} << 10;
    std::vector<uint64_t> compare;  ///< segment sizes that are compared, instead of segmentSize
    std::string digest;             ///< empty: defaultDigest()
    uint32_t jobs = 0;              ///< 0: one for each core
    uint32_t bits = 0;              ///< 0: chosen from the number of segments
    uint32_t areaSize = 0;          ///< 0: chosen from the number of segments
    std::string cacheFile;          ///< loaded first and replaced at the end; empty: none
    uint32_t limit = 0;             ///< of a cache's pages, MiB; 0: none
    std::string reportFile;         ///< empty: none
    bool lock = false;
    bool trace = false;
    bool json = false;
    bool noCount = false;

    std::vector<uint64_t> sizes() const {
        return compare.empty() ? std::vector<uint64_t>{segmentSize} : compare;
    }
};

/// Scans and reports. Returns kOk, or kPartial if something was skipped or not cached, or the scan
/// was interrupted. Throws Failure.
tool::ExitCode scan(ScanOptions options);

}  // namespace agent

#endif
