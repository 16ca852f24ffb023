// shrink: a cache file with fewer entries, for less memory. The output is replaced only after the
// new file was read back and is complete.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "common/owned.h"
#include "platform/status.h"
#include "tools/cache/commands.h"
#include "tools/cache/contents.h"
#include "tools/cache/file.h"
#include "tools/shared/failure.h"
#include "tools/shared/json.h"
#include "tools/shared/replacement.h"
#include "tools/shared/text.h"

namespace cache {
namespace {

using tool::humanBytes;
using tool::humanCount;

constexpr uint64_t kMebibyte = uint64_t{1} << 20;

[[noreturn]] void fail(const std::string& path, const std::string& why) {
    throw tool::Failure(tool::printable(path) + ": " + why);
}

/// Owner and permissions of a file.
struct Access {
    bool isThere;
    uid_t owner;
    gid_t group;
    mode_t mode;

    bool grant(int fd) const {
        return (!isThere || fchown(fd, owner, group) == 0) && fchmod(fd, mode) == 0;
    }
};

/// Those of the file at a path, or the usual ones of a new file. Refuses devices and pipes, which a
/// rename would replace by a file.
Access accessTo(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0) {
        if (!S_ISREG(status.st_mode)) fail(path, "exists and is not a regular file");
        return {true, status.st_uid, status.st_gid, status.st_mode & 0777};
    }
    if (errno != ENOENT) fail(path, strerror(errno));
    const mode_t mask = umask(0);
    umask(mask);
    return {false, 0, 0, 0644 & ~mask};
}

/// A path with symbolic links resolved, so that the link's target is replaced and not the link. The
/// file itself need not exist.
std::string resolved(const std::string& path) {
    std::error_code failure;
    const auto target = std::filesystem::weakly_canonical(path, failure);
    if (failure) fail(path, failure.message());
    return target;
}

/// The file that becomes OUT, with the owner and the permissions of OUT.
class Output {
  public:
    explicit Output(const std::string& path)
        : target_(resolved(path)),
          access_(accessTo(target_)),
          path_(target_ + ".XXXXXX"),
          file_(make(path_)),
          replacement_(target_, path_) {}

    const std::string& path() const { return path_; }

    void place() {
        // Contents first: after a crash, a renamed file could be empty.
        if (!access_.grant(file_.get()) || fsync(file_.get()) != 0) fail(target_, strerror(errno));
        if (const auto problem = replacement_.place()) fail(target_, *problem);
    }
    void removeTarget() {
        if (const auto problem = replacement_.removeTarget()) fail(target_, *problem);
    }

  private:
    /// Makes the new file, and completes its path.
    int make(std::string& path) const {
        const int fd = mkstemp(path.data());
        if (fd < 0) fail(target_, strerror(errno));
        return fd;
    }

    std::string target_;
    Access access_;
    std::string path_;
    kspool::Descriptor file_;
    tool::Replacement replacement_;
};

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

/// Drops the first entries of the file. The cache is not compacted: a saved file has no gaps
/// anyway, and compacting moves the last entries to the front, where the next shrink would drop
/// them.
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

/// Saves, and reads the new file back, since KSCacheSave() does not report write errors.
void save(const KSCache* cache, const Plan& plan, const std::string& out) {
    Output output(out);
    uint64_t count = 0;
    const uint32_t status = KSCacheSave(cache, output.path().c_str(), &count);
    if (status != CR_STATUS_OK) fail(out, CRStatusToStringA(status));
    if (plan.kept == 0) return output.removeTarget();
    const FileReport saved = inspect(output.path());
    if (loadingCode(saved) != ExitCode::kOk || saved.records != plan.kept)
        fail(out, "could not be written completely; nothing was changed");
    output.place();
}

void print(const Options& options, const FileReport& file, const Plan& plan) {
    const std::string out = tool::printable(options.out);
    if (options.json) {
        tool::printJson({{"file", file.name},
                         {"output", out},
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
    if (plan.kept == 0) {
        printf("%s: no entries, so there is no file %s\n", file.name.c_str(), out.c_str());
        return;
    }
    printf("%s: %s of %s entries dropped\n", file.name.c_str(),
           humanCount(plan.entries - plan.kept).c_str(), humanCount(plan.entries).c_str());
    printf("%s: %s entries, which take %s pages of %s slots, %s of %s\n", out.c_str(),
           humanCount(plan.kept).c_str(), humanCount(plan.pages()).c_str(),
           humanCount(plan.pageSlots).c_str(),
           humanBytes(static_cast<double>(plan.bytes())).c_str(),
           humanBytes(static_cast<double>(options.limit * kMebibyte)).c_str());
}

}  // namespace

ExitCode shrink(const Options& options) {
    const FileReport file = inspectAndReport(options.files[0]);
    // A damaged file is trouble here: "no" is no answer to a request for work.
    if (loadingCode(file) != ExitCode::kOk) return ExitCode::kTrouble;
    tool::CacheSettings settings =
        tool::settingsFor(std::min(file.records, options.limit * kMebibyte / sizeof(KSCacheNode)));
    if (options.areaSize != 0) settings.areaSize = options.areaSize;
    const Loaded loaded = load(file, settings);
    const Plan plan = makePlan(options, loaded.stats);
    dropFirst(loaded.cache.get(), plan.entries - plan.kept);
    save(loaded.cache.get(), plan, options.out);
    print(options, file, plan);
    return ExitCode::kOk;
}

}  // namespace cache
