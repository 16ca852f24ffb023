#include "tools/agent/verify.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <tuple>
#include <unordered_set>
#include <utility>

#include "tools/agent/digest.h"
#include "tools/agent/progress.h"
#include "tools/agent/query.h"
#include "tools/agent/reading.h"
#include "tools/agent/verify_report.h"
#include "tools/agent/walk.h"
#include "tools/shared/signals.h"
#include "tools/shared/text.h"

namespace agent {
namespace {

using tool::ExitCode;
using tool::Failure;
using tool::Interrupts;

/// The recorded data of an entry. Smaller than a Record, since those of a complete image are kept.
struct Expected {
    Entry entry;
    std::string digest;
    std::string target;
    const Cut* cut = nullptr;
};

const char* kindOf(const FileStatus& status) {
    if (status.isFile()) return "file";
    if (status.isFolder()) return "folder";
    return status.isLink() ? "symbolic link" : "special file";
}

bool isAtOrBelow(const std::string& path, const std::string& top) {
    if (path.compare(0, top.size(), top) != 0) return false;
    return top == "/" || path.size() == top.size() || path[top.size()] == '/';
}

/// The target of a symbolic link; empty, with errno set, when it cannot be read.
std::string targetOf(const std::string& path) {
    std::error_code error;
    std::string target = std::filesystem::read_symlink(path, error);
    errno = error.value();
    return target;
}

class Comparison {
  public:
    Comparison(const VerifyOptions& options, VerifyResult& result)
        : options_(options), result_(result) {
        for (std::string path : options.paths) {
            std::string absolute = absolutePath(path);
            while (path.size() > 1 && path.back() == '/')
                path.pop_back();
            tops_.push_back({std::move(path), std::move(absolute)});
        }
        if (tops_.empty()) tops_.push_back({"/", "/"});
    }

    /// Stores a record, unless it is outside the paths that the user named.
    void expect(FoundPO&& found) {
        Record& r = found.record;
        if (!isWanted(r.path)) return;
        Expected one{.entry = {.path = std::move(r.path), .status = r.status},
                     .digest = std::move(r.digest),
                     .target = std::move(r.target)};
        if (r.cut) one.cut = &*cuts_.insert(*r.cut).first;
        expected_.push_back(std::move(one));
    }

    /// Compares everything. A signal ends it early and sets `interrupted`.
    void run() {
        for (const Expected& one : expected_)
            known_.insert(one.entry.path);
        for (const std::string& path : options_.paths)
            checkTop(absolutePath(path));
        for (const Expected& one : expected_) {
            if (Interrupts::asked()) break;
            compare(one);
        }
        readAll();
        result_.interrupted = Interrupts::asked();
    }

  private:
    /// A path that the user named, as it was given. Without one it is the root.
    struct Top {
        std::string given;
        std::string absolute;
    };

    struct CutOrder {
        bool operator()(const Cut& a, const Cut& b) const {
            return std::tie(a.digest, a.segmentSize) < std::tie(b.digest, b.segmentSize);
        }
    };

    void add(const std::string& path, Finding finding, std::string detail = {}) {
        if (finding == Finding::kNotCompared) {
            tool::complain(tool::printable(path) + ": " + detail);
        }
        result_.add({path, finding, std::move(detail)});
    }
    void addProblem(const std::string& path, int error) {
        const bool gone = error == ENOENT || error == ENOTDIR;
        add(path, gone ? Finding::kGone : Finding::kNotCompared, gone ? "" : strerror(error));
    }

    bool isWanted(const std::string& path) const {
        return std::any_of(tops_.begin(), tops_.end(), [&](const Top& top) {
            return isAtOrBelow(path, top.absolute) && !isLeftOut(path, top);
        });
    }

    /// Whether a walk from `top` would have excluded the path, or a folder that it lies in.
    bool isLeftOut(const std::string& path, const Top& top) const {
        if (options_.exclude.empty()) return false;
        for (std::string at = path; at.size() > top.absolute.size(); at = placeOf(at).folder) {
            const std::string met = top.given + at.substr(top.absolute.size());
            if (isExcluded(options_.exclude, met, at)) return true;
        }
        return false;
    }

    /// Handles a path that the user named: without any record it is new, or a mistake.
    void checkTop(const std::string& top) {
        struct stat status {};
        if (std::any_of(expected_.begin(), expected_.end(),
                        [&](const Expected& one) { return isAtOrBelow(one.entry.path, top); }))
            return;
        if (lstat(top.c_str(), &status) == 0) return add(top, Finding::kNew);
        add(top, Finding::kNotCompared,
            std::string("not recorded, and not here: ") + strerror(errno));
    }

    void compare(const Expected& one) {
        const std::string& path = one.entry.path;
        const FileStatus& recorded = one.entry.status;
        struct stat found {};
        if (lstat(path.c_str(), &found) != 0) return addProblem(path, errno);
        const FileStatus now = statusOf(found);
        if ((now.mode & S_IFMT) != (recorded.mode & S_IFMT)) {
            return add(path, Finding::kChanged,
                       std::string(kindOf(recorded)) + ", now a " + kindOf(now));
        }
        if (recorded.isFile()) return compareFile(one, now);
        if (recorded.isLink()) return compareLink(one);
        add(path, Finding::kSame);
        if (recorded.isFolder()) lookForNew(path, found.st_dev);
    }

    void compareLink(const Expected& one) {
        const std::string target = targetOf(one.entry.path);
        if (target.empty()) return addProblem(one.entry.path, errno);
        if (target == one.target) return add(one.entry.path, Finding::kSame);
        add(one.entry.path, Finding::kChanged, "points to " + target + ", not to " + one.target);
    }

    void compareFile(const Expected& one, const FileStatus& now) {
        const std::string& path = one.entry.path;
        if (now.size != one.entry.status.size) return addSize(one, now.size);
        const bool usable = one.cut != nullptr && digestKind(one.cut->digest) != nullptr &&
                            one.cut->segmentSize >= kSmallestSegment &&
                            one.cut->segmentSize <= kLargestSegment;
        if (!usable)
            return add(path, Finding::kNotCompared, "its record tells no digest to compare");
        toRead_[one.cut].push_back(&one);
        bytesToRead_ += now.size;
    }

    void addSize(const Expected& one, uint64_t now) {
        add(one.entry.path, Finding::kChanged,
            std::to_string(now) + " bytes, not " + std::to_string(one.entry.status.size));
    }

    /// Looks for entries of a folder that are not recorded. Kinds that record ignores are not new.
    void lookForNew(const std::string& folder, dev_t device) {
        struct stat parent {};
        const std::string above = placeOf(folder).folder;
        if (options_.oneFileSystem && known_.count(above) != 0 &&
            lstat(above.c_str(), &parent) == 0 && parent.st_dev != device)
            return;
        std::error_code error;
        for (std::filesystem::directory_iterator at(folder, error), end; !error && at != end;
             at.increment(error)) {
            const std::string path = at->path();
            struct stat status {};
            if (known_.count(path) != 0 || !isWanted(path)) continue;
            if (lstat(path.c_str(), &status) != 0) continue;
            if (status.st_dev != device && belongsToKernel(path.c_str())) continue;
            const FileStatus now = statusOf(status);
            if (now.isFile() || now.isFolder() || now.isLink()) add(path, Finding::kNew, "");
        }
        if (error) add(folder, Finding::kNotCompared, error.message());
    }

    void readAll() {
        Progress progress(bytesToRead_, /*takesMessages=*/false);
        for (const auto& [cut, files] : toRead_) {
            if (Interrupts::asked()) return;
            std::vector<const Entry*> entries;
            for (const Expected* one : files)
                entries.push_back(&one->entry);
            ReadOptions options;
            options.digest = digestKind(cut->digest);
            options.segmentSizes = {cut->segmentSize};
            options.jobs = options_.jobs;
            options.advance = [&](uint64_t bytes) { progress.advance(bytes); };
            auto next = files.begin();
            readFiles(
                entries, options,
                [&](ReadFile&& read) {
                    if (read.problem) progress.clear();
                    compareContents(**next++, read);
                },
                Interrupts::asked);
        }
    }

    void compareContents(const Expected& one, const ReadFile& read) {
        const std::string& path = one.entry.path;
        result_.bytes += read.bytes;
        if (read.problem) return add(path, Finding::kNotCompared, *read.problem);
        if (read.bytes != one.entry.status.size) return addSize(one, read.bytes);
        const bool same = fileDigest(read.digests.front()) == one.digest;
        add(path, same ? Finding::kSame : Finding::kChanged, same ? "" : "other contents");
    }

    const VerifyOptions& options_;
    VerifyResult& result_;
    std::vector<Top> tops_;
    std::set<Cut, CutOrder> cuts_;
    std::vector<Expected> expected_;
    std::unordered_set<std::string_view> known_;  ///< the paths in expected_
    std::map<const Cut*, std::vector<const Expected*>> toRead_;
    uint64_t bytesToRead_ = 0;
};

/// The record of the image. POs without a record are not a complete image, and are not verified.
ImageRecord recordOf(tool::Session& session, const ImageName& n) {
    for (ImageRecord& r : listImages(session, n.dataselection, n.client, n.policy))
        if (r.name.image == n.image) return std::move(r);
    const std::string image = "image " + tool::printable(n.image);
    const uint64_t count = countFiles(n, session);
    if (count == 0) throw Failure(ExitCode::kNothing, image + ": not known to the server");
    throw Failure(ExitCode::kNothing, image + ": incomplete: " + std::to_string(count) +
                                          " entries are on the server, but no record of the image");
}

ExitCode exitCode(const VerifyResult& result) {
    if (result.interrupted) return ExitCode::kInterrupted;
    if (result.changed + result.gone + result.added > 0) return ExitCode::kDiffers;
    return result.notCompared > 0 ? ExitCode::kPartial : ExitCode::kOk;
}

}  // namespace

ExitCode verify(const VerifyOptions& options) {
    VerifyResult result;
    Comparison comparison(options, result);
    tool::Session session(options.session);
    Interrupts interrupts;
    interrupts.abort(session.handle());
    try {
        result.image = recordOf(session, options.name);
        findImage(session, options.name,
                  [&](FoundPO&& found, std::string_view) { comparison.expect(std::move(found)); });
    } catch (const Failure&) {
        if (!Interrupts::asked()) throw;
        return ExitCode::kInterrupted;
    }
    comparison.run();
    printVerify(result, options.json);
    return exitCode(result);
}

}  // namespace agent
