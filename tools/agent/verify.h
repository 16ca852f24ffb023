// kspool-agent verify: compares local entries with the records of an image.
//
// Contents, kinds and the targets of symbolic links are compared; owners, modes and times are not.
// A file whose size differs is not read. New entries are searched in recorded folders, but not
// below new folders.
#ifndef TOOLS_AGENT_VERIFY_H
#define TOOLS_AGENT_VERIFY_H

#include <cstdint>
#include <string>
#include <vector>

#include "tools/agent/image.h"
#include "tools/shared/failure.h"
#include "tools/shared/session.h"

namespace agent {

struct VerifyOptions {
    tool::SessionOptions session;
    ImageName name;
    std::vector<std::string> paths;    ///< each with all below it; empty: everything recorded
    std::vector<std::string> exclude;  ///< patterns, see isExcluded() of walk.h
    bool oneFileSystem = false;        ///< look for new entries in no other file system
    uint32_t jobs = 0;                 ///< threads that read; 0: one for each core
    bool json = false;
};

/// Compares and reports. Returns kDiffers if an entry differs, else kPartial if one could not be
/// compared, else kOk. Throws Failure with kNothing if the image has no record; the text says
/// whether the image is unknown or incomplete.
tool::ExitCode verify(const VerifyOptions& options);

}  // namespace agent

#endif
