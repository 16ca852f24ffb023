// kspool-agent scan: measures with a cache how much data of some trees is repeated.
#ifndef TOOLS_AGENT_SCAN_H
#define TOOLS_AGENT_SCAN_H

#include <cstdint>
#include <string>
#include <vector>

#include "tools/shared/failure.h"

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

/// Scans and reports: kOk, or kPartial when something was skipped or not cached.
tool::ExitCode scan(const ScanOptions& options);

}  // namespace agent

#endif
