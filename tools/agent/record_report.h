// The report of a recording, for people and as JSON.
#ifndef TOOLS_AGENT_RECORD_REPORT_H
#define TOOLS_AGENT_RECORD_REPORT_H

#include <cstdint>
#include <string>
#include <vector>

#include "tools/agent/folder_sums.h"
#include "tools/agent/record.h"

namespace agent {

/// Whether the server has carried out a change.
enum class Outcome { kNo, kUnknown, kYes };

struct RecordResult {
    uint64_t files = 0;    ///< regular files, read completely or not read again
    uint64_t unread = 0;   ///< of these, not read again
    uint64_t folders = 0;  ///< and symbolic links
    uint64_t links = 0;
    uint64_t recorded = 0;  ///< POs that the server has confirmed
    uint64_t skipped = 0;   ///< files and folders that could not be read, or not wholly
    uint64_t stale = 0;     ///< POs of an earlier recording that were expired
    uint64_t kept = 0;      ///< and that were kept, of what could not be read now
    uint64_t bytes = 0;
    uint64_t segments = 0;
    uint64_t newSegments = 0;
    uint64_t newBytes = 0;
    uint64_t found = 0;  ///< POs of the image on the server, afterwards
    uint64_t cached = 0;
    bool begun = false;               ///< the server may have been changed
    Outcome complete = Outcome::kNo;  ///< the server has the image's record; the dry run has ended
    Outcome retentionSet = Outcome::kNo;
    bool cacheSaved = false;
    bool interrupted = false;  ///< before the image was complete, or its retention was set
    double seconds = 0;
    double cacheSeconds = 0;          ///< of these, in the cache
    double serverSeconds = 0;         ///< and waiting for the server
    std::vector<FolderSum> byFolder;  ///< of a dry run
};

void printRecord(const RecordOptions& options, const RecordResult& result);

}  // namespace agent

#endif
