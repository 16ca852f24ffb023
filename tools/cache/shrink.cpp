// shrink: a cache file with fewer entries, for less memory.
#include <algorithm>
#include <cstdio>

#include "platform/status.h"
#include "tools/cache/commands.h"
#include "tools/cache/contents.h"
#include "tools/cache/file.h"
#include "tools/shared/failure.h"
#include "tools/shared/json.h"
#include "tools/shared/text.h"

namespace cache {
namespace {

using tool::humanBytes;
using tool::humanCount;

constexpr uint64_t kMebibyte = uint64_t{1} << 20;

struct Plan {
    uint64_t pageSlots;
    uint64_t entries;
    uint64_t kept;

    uint64_t pages() const { return pagesFor(kept, pageSlots); }
    uint64_t bytes() const { return pages() * pageSlots * sizeof(KSCacheNode); }
};

Plan makePlan(const Options& options, const KSCacheStatsRecord& stats) {
    const uint64_t pageBytes = stats.areaSize * stats.nodeSize;
    const uint64_t pages = options.limit * kMebibyte / pageBytes;
    if (pages == 0) {
        const uint64_t smallest = (pageBytes + kMebibyte - 1) / kMebibyte;
        throw tool::Failure("not one page of " + humanCount(stats.areaSize) +
                            " slots fits; with such pages the smallest limit is " +
                            std::to_string(smallest));
    }
    const uint64_t room = pages * (stats.areaSize - 1);
    return {stats.areaSize, stats.cachedItems, std::min(room, stats.cachedItems)};
}

/// Drops the first entries of the file. Does not compact the cache: a saved file has no gaps
/// anyway, and compaction would move the last entries to the front, where the next shrink would
/// drop them.
void dropFirst(KSCache* cache, uint64_t surplus) {
    forEachEntry(cache, [&](const KSCacheNode& entry) {
        if (surplus == 0) return false;
        const KSCacheNode copy = entry;
        if (KSCacheDelete(cache, copy.fingerprint, copy.type) != CR_STATUS_OK)
            throw tool::Failure("an entry could not be dropped");
        --surplus;
        return true;
    });
}

void save(const KSCache* cache, const std::string& out) {
    const uint32_t status = KSCacheReplaceFile(cache, out.c_str(), nullptr, nullptr);
    if (status != CR_STATUS_OK)
        throw tool::Failure(tool::printable(out) + ": " + tool::whyNotReplaced(out, status));
}

void print(const Options& options, const FileReport& file, const Plan& plan) {
    if (options.json) {
        tool::printJson({{"file", file.path},
                         {"output", options.out},
                         {"saved", plan.kept > 0},
                         {"limit", options.limit},
                         {"entries", plan.entries},
                         {"dropped", plan.entries - plan.kept},
                         {"kept", plan.kept},
                         {"pageSlots", plan.pageSlots},
                         {"pages", plan.pages()},
                         {"pageBytes", plan.bytes()}},
                        2);
        return;
    }
    const std::string out = tool::printable(options.out);
    if (plan.kept == 0) {
        printf("%s: no entries, so there is no file %s\n", file.name.c_str(), out.c_str());
        return;
    }
    printf("%s: %s of %s entries dropped\n", file.name.c_str(),
           humanCount(plan.entries - plan.kept).c_str(), humanCount(plan.entries).c_str());
    printf("%s: %s entries, which take %s pages of %s slots, %s of %s\n", out.c_str(),
           humanCount(plan.kept).c_str(), humanCount(plan.pages()).c_str(),
           humanCount(plan.pageSlots).c_str(), humanBytes(plan.bytes()).c_str(),
           humanBytes(options.limit * kMebibyte).c_str());
}

}  // namespace

ExitCode shrink(const Options& options) {
    const FileReport file = inspectAndReport(options.files[0]);
    // kNo is for questions; here a damaged file means that the work could not be done.
    if (loadingCode(file) != ExitCode::kOk) return ExitCode::kTrouble;
    tool::CacheSettings settings =
        tool::settingsFor(std::min(file.records, options.limit * kMebibyte / sizeof(KSCacheNode)));
    if (options.areaSize != 0) settings.areaSize = options.areaSize;
    const Loaded loaded = load(file, settings);
    const Plan plan = makePlan(options, loaded.stats);
    dropFirst(loaded.cache.get(), plan.entries - plan.kept);
    save(loaded.cache.get(), options.out);
    print(options, file, plan);
    return ExitCode::kOk;
}

}  // namespace cache
