// kspool-agent record: records files as POs on the pool's server, one image per run. The cache
// shows how much of their data is new. No data is transferred.
//
// The order of a run, so that no later run calls anything known that is not in a live image:
//  1. The cache file is held, and its facts are read: another server or data selection is refused.
//  2. The facts forget an earlier recording of the same name, in the file too. Only then does the
//     server: its record goes first, so that nobody takes a half recorded image for whole.
//  3. POs are sent. New segments enter the cache in memory when the server has confirmed them.
//  4. POs of the earlier recording that this one has not replaced are expired, or kept where they
//     are of what could not be read; the server's POs are compared with those that were sent.
//  5. The image's record is set: the image is complete. Its retention is set.
//  6. Facts and cache are replaced, whether or not the retention could be set. A run that ended
//     before has not changed the cache file.
#ifndef TOOLS_AGENT_RECORD_H
#define TOOLS_AGENT_RECORD_H

#include <cstdint>
#include <string>

#include "tools/agent/image.h"
#include "tools/agent/walk.h"
#include "tools/shared/failure.h"
#include "tools/shared/session.h"

namespace agent {

struct RecordOptions {
    tool::SessionOptions session;
    ImageName name;
    WalkOptions walk;
    std::string cacheFile;  ///< empty: the cache is made for this run and forgotten
    uint32_t limit = 512;   ///< of the cache, MiB
    uint64_t segmentSize = uint64_t{128} << 10;
    std::string digest;       ///< empty: the configuration's, else sha256
    uint32_t listSize = 500;  ///< POs that are sent at once
    uint32_t jobs = 0;        ///< threads that read, 0: one for each core
    int64_t retention = 0;    ///< seconds, 0: none is set
    bool force = false;       ///< read all files
    bool rebind = false;      ///< start anew when the cache is bound to something else
    bool wait = false;        ///< wait while another process holds the cache file
    bool dryRun = false;
    bool json = false;
};

/// Records and reports: kOk, or kPartial when files were skipped or the run was interrupted; the
/// code of a failure, which has then been reported, after a run that ended early or left something
/// undone. Throws Failure when it could not begin.
tool::ExitCode record(RecordOptions options);

}  // namespace agent

#endif
