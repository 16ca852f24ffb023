// kspool-agent verify: compares local entries with the records of an image.
//
// Contents, kinds and the targets of symbolic links are compared; owners, modes and times are not.
// A file whose size differs is not read. Entries that are not recorded are looked for in folders
// that are recorded, and not below entries that are new themselves.
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
    std::vector<std::string> paths;    ///< what lies at and below them; none: all that is recorded
    std::vector<std::string> exclude;  ///< patterns, see isExcluded() of walk.h
    bool oneFileSystem = false;        ///< look for new entries in no other file system
    uint32_t jobs = 0;                 ///< threads that read; 0: one for each core
    bool json = false;
};

/// Compares and reports: kDiffers when an entry differs, else kPartial when one could not be
/// compared. Throws Failure with kNothing when the image has no record: it is then unknown, or
/// incomplete, which the text says.
tool::ExitCode verify(const VerifyOptions& options);

}  // namespace agent

#endif
