// The digest of a file, which its PO has.
#ifndef TOOLS_AGENT_DIGEST_H
#define TOOLS_AGENT_DIGEST_H

#include <string>
#include <vector>

#include "tools/agent/segments.h"

namespace agent {

/// The SHA-256 of the digests of the segments, one after the other, each with all its 32 bytes, in
/// hexadecimal. It depends on the segment size and on the digest algorithm of the segments.
std::string fileDigest(const std::vector<Digest>& segments);

}  // namespace agent

#endif
