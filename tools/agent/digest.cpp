#include "tools/agent/digest.h"

#include <openssl/sha.h>

#include "platform/status.h"
#include "tools/shared/cache.h"

namespace agent {

std::string fileDigest(const std::vector<Digest>& segments) {
    Digest all{};
    SHA256(reinterpret_cast<const unsigned char*>(segments.data()),
           segments.size() * sizeof(Digest), all.data());
    return tool::digestText(all.data(), CR_FP_SHA256);
}

}  // namespace agent
