// shrink: a cache file for less memory. It is replaced when the new one is known to be complete.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "platform/status.h"
#include "tools/cache/commands.h"
#include "tools/cache/contents.h"
#include "tools/cache/file.h"
#include "tools/shared/descriptor.h"
#include "tools/shared/json.h"
#include "tools/shared/text.h"

namespace cache {
namespace {

using tool::humanBytes;
using tool::humanCount;

constexpr uint64_t kMebibyte = uint64_t{1} << 20;

[[noreturn]] void fail(const std::string& path, const std::string& why) {
    throw std::runtime_error(tool::printable(path) + ": " + why);
}

/// Whose a file is and who may use it.
struct Access {
    bool isThere;
    uid_t owner;
    gid_t group;
    mode_t mode;

    bool grant(int fd) const {
        return (!isThere || fchown(fd, owner, group) == 0) && fchmod(fd, mode) == 0;
    }
};

/// Those of the file that is there, or of a new one. What is there may be no device or pipe, which
/// a rename would replace.
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

/// Where a path leads to, links followed, though the file itself need not be there.
std::string resolved(const std::string& path) {
    std::error_code failure;
    const auto target = std::filesystem::weakly_canonical(path, failure);
    if (failure) fail(path, failure.message());
    return target;
}

/// A file in the folder of another one, which it replaces in the end or leaves as it was.
class Replacement {
  public:
    explicit Replacement(const std::string& path)
        : target_(resolved(path)),
          access_(accessTo(target_)),
          path_(target_ + ".XXXXXX"),
          file_(mkstemp(path_.data())) {
        if (file_.get() < 0) fail(target_, strerror(errno));
    }
    ~Replacement() {
        if (!placed_) unlink(path_.c_str());
    }
    Replacement(const Replacement&) = delete;
    Replacement& operator=(const Replacement&) = delete;

    const std::string& path() const { return path_; }

    void replace() {
        if (!access_.grant(file_.get()) || fsync(file_.get()) != 0 ||
            rename(path_.c_str(), target_.c_str()) != 0)
            fail(target_, strerror(errno));
        placed_ = true;
    }
    void removeTarget() {
        if (unlink(target_.c_str()) != 0 && errno != ENOENT) fail(target_, strerror(errno));
    }

  private:
    std::string target_;
    Access access_;
    std::string path_;
    tool::Descriptor file_;
    bool placed_ = false;
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
        throw std::runtime_error("not one page of " + humanCount(stats.areaSize) +
                                 " slots fits; with such pages the smallest limit is " +
                                 std::to_string(smallest));
    }
    const uint64_t room = pages * (stats.areaSize - 1);
    return {stats.areaSize, stats.cachedItems, std::min(room, stats.cachedItems)};
}

/// Drops the first entries of the file. The others stay where they are: the file has no gaps
/// anyway, and compacting would bring its last entries to its front, where the next shrink drops
/// them.
void dropFirst(KSCache* cache, uint64_t surplus) {
    forEachEntry(cache, [&](const KSCacheNode& entry) {
        if (surplus == 0) return false;
        const KSCacheNode copy = entry;
        if (KSCacheDelete(cache, copy.fingerprint, copy.type) != CR_STATUS_OK)
            throw std::runtime_error("an entry could not be dropped");
        --surplus;
        return true;
    });
}

/// KSCacheSave() does not tell of errors in writing.
void save(const KSCache* cache, const Plan& plan, const std::string& out) {
    Replacement replacement(out);
    uint64_t count = 0;
    const uint32_t status = KSCacheSave(cache, replacement.path().c_str(), &count);
    if (status != CR_STATUS_OK) fail(out, CRStatusToStringA(status));
    if (plan.kept == 0) return replacement.removeTarget();
    const FileReport saved = inspect(replacement.path());
    if (loadability(saved) != tool::kExitOk || saved.records != plan.kept)
        fail(out, "could not be written completely; nothing was changed");
    replacement.replace();
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

int shrink(const Options& options) {
    const FileReport file = inspectAloud(options.files[0]);
    if (loadability(file) != tool::kExitOk) return tool::kExitTrouble;
    Settings settings =
        settingsFor(std::min(file.records, options.limit * kMebibyte / sizeof(KSCacheNode)));
    if (options.areaSize != 0) settings.areaSize = options.areaSize;
    const Loaded loaded = load(file, settings);
    const Plan plan = makePlan(options, loaded.stats);
    dropFirst(loaded.cache.get(), plan.entries - plan.kept);
    save(loaded.cache.get(), plan, options.out);
    print(options, file, plan);
    return tool::kExitOk;
}

}  // namespace cache
