// kspool-agent find: lists the entries that the server knows.
#ifndef TOOLS_AGENT_FIND_H
#define TOOLS_AGENT_FIND_H

#include <string>
#include <vector>

#include "tools/agent/image.h"
#include "tools/shared/failure.h"
#include "tools/shared/session.h"

namespace agent {

struct FindOptions {
    tool::SessionOptions session;
    ImageName name;  ///< its texts are patterns
    /// A pattern with a slash is a path, and matches the entry and all entries below it. Without a
    /// slash it is a name. Both may contain `*` and `?`. Empty: everything.
    std::vector<std::string> patterns;
    std::string type;  ///< f, d, l; empty: all
    bool json = false;
    bool pathsOnly = false;  ///< each ended by NUL
};

/// kNothing when nothing was found. An entry that several patterns match is listed once.
tool::ExitCode find(const FindOptions& options);

}  // namespace agent

#endif
