#include "tools/shared/cache.h"

#include <algorithm>
#include <array>

#include "platform/status.h"

namespace tool {
namespace {

constexpr uint64_t kFewestSlots = 1024;
constexpr uint64_t kPagesWanted = 200;
constexpr size_t kLongestDigest = 32;

}  // namespace

CacheSettings settingsFor(uint64_t entries, uint64_t mostSlots) {
    const uint64_t slots = std::max(kFewestSlots, std::min(entries / kPagesWanted, mostSlots));
    return {KSCacheBitsFor(entries), static_cast<uint32_t>(slots)};
}

std::string digestText(const void* digest, uint32_t type) {
    std::array<char, 2 * kLongestDigest + 1> text{};
    return CRFPDigestToString_r(digest, type, text.data(), text.size());
}

}  // namespace tool
