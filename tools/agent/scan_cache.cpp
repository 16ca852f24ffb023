#include "tools/agent/scan_cache.h"

#include <algorithm>
#include <filesystem>
#include <utility>

#include "platform/status.h"
#include "tools/shared/failure.h"
#include "tools/shared/messages.h"
#include "tools/shared/text.h"

namespace agent {
namespace {

using tool::ExitCode;
using tool::Failure;

constexpr uint64_t kMark = 0x5C;
constexpr int kMarkShift = 24;  // within the upper half
constexpr uint64_t kNumberMask = (uint64_t{1} << kMarkShift) - 1;

uint64_t upperHalf(uint64_t number) {
    return kMark << kMarkShift | (number & kNumberMask);
}

/// What the values in a loaded file say about earlier scans.
struct Origins {
    uint64_t newest = 0;
    bool foreign = false;

    static int see(KSCache*, KSCacheNode*, uint64_t value, int, void* self) {
        auto& origins = *static_cast<Origins*>(self);
        const uint64_t half = value >> 32;
        origins.newest = std::max(origins.newest, half & kNumberMask);
        origins.foreign = half >> kMarkShift != kMark;
        return origins.foreign ? 1 : 0;
    }
};

}  // namespace

ScanCache::ScanCache(const ScanOptions& options, const DigestKind& kind, uint64_t entries)
    : type_(kind.fingerprintType), limit_(uint64_t{options.limit} << 20), scan_(upperHalf(1)) {
    const tool::CacheSettings chosen = tool::settingsFor(entries, limit_);
    cache_.reset(KSCacheCreate(options.areaSize != 0 ? options.areaSize : chosen.areaSize,
                               options.bits != 0 ? options.bits : chosen.bits, options.lock ? 1 : 0,
                               nullptr, nullptr));
    if (cache_ != nullptr) return;
    throw Failure(std::string("no cache could be made: ") +
                  CRStatusToStringA(*__cr_errno_location()));
}

void ScanCache::load(const HeldFile& file) {
    if (file.size() == 0) return;
    const auto refuse = [&](const std::string& why) {
        throw Failure(tool::printable(file.path()) + ": " + why);
    };
    // A part of the entries, which would replace all of them, is told by the slot alone.
    const uint32_t& slot = *__cr_errno_location() = CR_STATUS_OK;
    KSCacheLoad(cache_.get(), file.path().c_str(), nullptr);
    if (slot != CR_STATUS_OK) refuse(CRStatusToStringA(slot));
    Origins origins;
    KSCacheIterate(cache_.get(), Origins::see, &origins);
    if (origins.foreign) refuse("is a cache file, but not that of a scan");
    KSCacheStatsRecord stats{};
    KSCacheStats(cache_.get(), &stats);
    if (limit_ != 0 && stats.cacheSize > limit_) {
        refuse("its " + tool::humanCount(stats.cachedItems) +
               " entries take more memory than the limit");
    }
    scan_ = upperHalf(origins.newest + 1);
}

Fate ScanCache::ask(const Digest& digest, uint32_t file, uint32_t& source) {
    uint64_t value = 0;
    if (KSCacheExists(cache_.get(), digest.data(), type_, &value) == CR_STATUS_OK) {
        source = static_cast<uint32_t>(value);
        if (value >> 32 != scan_) return Fate::kEarlier;
        return source == file ? Fate::kSameFile : Fate::kOtherFile;
    }
    if (isFull()) return Fate::kUncached;
    const uint32_t status =
        KSCacheAdd(cache_.get(), digest.data(), type_, scan_ << 32 | file, nullptr);
    return status == CR_STATUS_OK ? Fate::kUnique : Fate::kUncached;
}

bool ScanCache::isFull() const {
    if (limit_ == 0) return false;
    KSCacheStatsRecord stats{};
    KSCacheStats(cache_.get(), &stats);
    const uint64_t page = uint64_t{stats.areaSize} * stats.nodeSize;
    return stats.nodesAvailable == 0 && stats.freeListCount == 0 && stats.cacheSize + page > limit_;
}

}  // namespace agent
