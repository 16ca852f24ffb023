// kspool-agent find: lists the entries that the server knows.
#ifndef TOOLS_AGENT_FIND_H
#define TOOLS_AGENT_FIND_H

#include <string>

#include "tools/agent/image.h"
#include "tools/shared/failure.h"
#include "tools/shared/session.h"

namespace agent {

struct FindOptions {
    tool::SessionOptions session;
    ImageName name;             ///< its texts are patterns
    std::string pattern = "*";  ///< of file names
    bool json = false;
};

/// kNothing when nothing was found.
tool::ExitCode find(const FindOptions& options);

}  // namespace agent

#endif
