// The report of a backup, for people and as JSON.
#ifndef TOOLS_AGENT_RECORD_REPORT_H
#define TOOLS_AGENT_RECORD_REPORT_H

#include <cstdint>

#include "tools/agent/record.h"

namespace agent {

struct RecordResult {
    uint64_t files = 0;     ///< read to their ends
    uint64_t recorded = 0;  ///< of these, confirmed by the server
    uint64_t skipped = 0;   ///< files and folders that could not be read, or not wholly
    uint64_t bytes = 0;
    uint64_t segments = 0;
    uint64_t newSegments = 0;
    uint64_t newBytes = 0;
    uint64_t found = 0;  ///< POs of the image on the server, afterwards
    uint64_t cached = 0;
    bool interrupted = false;
    double seconds = 0;
    double cacheSeconds = 0;   ///< of these, in the cache
    double serverSeconds = 0;  ///< and waiting for the server
};

void printRecord(const RecordOptions& options, const RecordResult& result);

}  // namespace agent

#endif
