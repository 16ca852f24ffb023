// The digest of a file, as stored in its PO.
#ifndef TOOLS_AGENT_DIGEST_H
#define TOOLS_AGENT_DIGEST_H

#include <string>
#include <vector>

#include "tools/agent/segments.h"

namespace agent {

/// The SHA-256, in hexadecimal, of the concatenated digests of the segments, 32 bytes each. It
/// depends on the segment size and on the digest algorithm of the segments.
std::string fileDigest(const std::vector<Digest>& segments);

}  // namespace agent

#endif
