// kspool-agent find and expire: the files of a client that the server knows.
#ifndef TOOLS_AGENT_QUERY_H
#define TOOLS_AGENT_QUERY_H

#include <cstdint>
#include <string>

#include "tools/agent/image.h"
#include "tools/shared/failure.h"
#include "tools/shared/session.h"

namespace agent {

struct QueryOptions {
    tool::SessionOptions session;
    ImageName name;
    std::string pattern = "*";  ///< of file names
    bool json = false;
};

/// Lists the files that the server knows; kNothing when there is none.
tool::ExitCode find(const QueryOptions& options);

/// Expires the POs of an image and deletes its record.
tool::ExitCode expire(const QueryOptions& options);

/// The number of POs that the server has for an image. Throws Failure when the query fails.
uint64_t countFiles(const ImageName& name, tool::Session& session);

}  // namespace agent

#endif
