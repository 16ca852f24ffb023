// kspool-agent record: fingerprints files, asks the cache which segments are new, and records each
// file by one PO on the pool's server.
#ifndef TOOLS_AGENT_RECORD_H
#define TOOLS_AGENT_RECORD_H

#include <cstdint>
#include <string>
#include <vector>

#include "tools/agent/image.h"
#include "tools/shared/failure.h"
#include "tools/shared/session.h"

namespace agent {

struct RecordOptions {
    tool::SessionOptions session;
    ImageName name;
    std::vector<std::string> paths;
    std::string cacheFile;  ///< empty: the cache is made for this run and forgotten
    uint32_t limit = 512;   ///< of the cache, MiB
    uint64_t segmentSize = uint64_t{128} << 10;
    std::string digest = "sha256";
    uint32_t listSize = 500;  ///< POs that are sent at once
    int64_t retention = 0;    ///< seconds, 0: none is set
    bool oneFileSystem = false;
    bool json = false;
};

/// Backs up and reports: kOk, or kPartial when files were skipped or the run was interrupted; the
/// code of a failure, which has then been reported, after a run that ended early. Throws Failure
/// when no file was backed up at all.
tool::ExitCode record(const RecordOptions& options);

}  // namespace agent

#endif
