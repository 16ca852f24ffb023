#include "tools/shared/cache.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>

#include "platform/status.h"

namespace tool {
namespace {

constexpr uint64_t kFewestSlots = 1024;
constexpr uint64_t kPagesOfLimit = 12;
constexpr size_t kLongestDigest = 32;

/// The process id in the lock file, which the library creates beside the target of a link. Empty if
/// the holder has just released the file, or has not written its id yet.
std::string holderOf(const std::string& path) {
    std::error_code failure;
    std::ifstream lock(std::filesystem::weakly_canonical(path, failure).string() + ".lock");
    std::string process;
    lock >> process;
    return process;
}

}  // namespace

CacheSettings settingsFor(uint64_t entries, uint64_t limit) {
    uint64_t slots = KSCacheAreaFor(entries);
    if (limit != 0) slots = std::min(slots, limit / sizeof(KSCacheNode) / kPagesOfLimit);
    return {KSCacheBitsFor(entries), static_cast<uint32_t>(std::max(kFewestSlots, slots))};
}

std::string whyNotReplaced(const std::string& path, uint32_t status) {
    if (status == CR_STATUS_BAD_HANDLE) return "there is a file that is not a cache file";
    if (status != CR_STATUS_BUSY) return CRStatusToStringA(status);
    const std::string holder = holderOf(path);
    return "held by " + (holder.empty() ? "another process" : "process " + holder);
}

std::string digestText(const void* digest, uint32_t type) {
    std::array<char, 2 * kLongestDigest + 1> text{};
    return CRFPDigestToString_r(digest, type, text.data(), text.size());
}

}  // namespace tool
