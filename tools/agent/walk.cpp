#include "tools/agent/walk.h"

#include <fnmatch.h>
#include <fts.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <set>

#include "tools/shared/text.h"

namespace agent {
namespace {

constexpr size_t kEntriesBetweenStops = 128;

struct CloseTree {
    void operator()(FTS* tree) const { fts_close(tree); }
};

int byName(const FTSENT** left, const FTSENT** right) {
    return strcmp((*left)->fts_name, (*right)->fts_name);
}

/// Whether the entry is a root, or on another file system than its parent folder.
bool entersFileSystem(const FTSENT& entry) {
    return entry.fts_level == FTS_ROOTLEVEL ||
           entry.fts_statp->st_dev != entry.fts_parent->fts_statp->st_dev;
}

/// Why a path cannot be walked.
std::optional<std::string> pathProblem(const std::string& path) {
    struct stat status {};
    if (path.empty()) return "an empty path names nothing";
    if (lstat(path.c_str(), &status) != 0) return strerror(errno);
    if (S_ISLNK(status.st_mode)) return "is a symbolic link, which is not followed";
    if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) return "is neither file nor folder";
    return {};
}

/// A path that the user named.
struct Root {
    std::string path;
    std::string absolute;

    /// The absolute path of an entry below it.
    std::string absoluteOf(const FTSENT& entry) const {
        const char* below = entry.fts_path + path.size();
        while (*below == '/')
            ++below;
        if (*below == '\0') return absolute;
        return absolute == "/" ? absolute + below : absolute + '/' + below;
    }
};

}  // namespace

/// Roots inside other roots come last. They are walked only if no other walk has reached them,
/// which happens if a pattern excludes them there or they are on another file system.
struct Walker::State {
    State(const WalkOptions& walkOptions, ProblemVisitor visitor);

    bool openNextRoot();
    std::optional<Entry> visit(FTSENT& entry);
    std::optional<Entry> take(FTSENT& entry);
    bool passesOver(const FTSENT& entry);

    const WalkOptions& options;
    ProblemVisitor problem;
    std::vector<Root> roots;
    std::set<std::string> inner;    ///< absolute paths of the roots inside others
    std::set<std::string> reached;  ///< those of `inner` that were listed
    size_t nextRoot = 0;
    std::unique_ptr<FTS, CloseTree> tree;

    const Root& root() const { return roots[nextRoot - 1]; }
};

Walker::State::State(const WalkOptions& walkOptions, ProblemVisitor visitor)
    : options(walkOptions), problem(std::move(visitor)) {
    std::set<std::string> all;
    for (const auto* paths : {&options.paths, &options.listed}) {
        for (const std::string& path : *paths) {
            if (path.empty()) continue;  // checkPaths() refuses it
            std::string absolute = absolutePath(path);
            if (all.insert(absolute).second) roots.push_back({path, std::move(absolute)});
        }
    }
    const auto isInner = [&](const Root& root) {
        for (std::string above = root.absolute; above.size() > 1;) {
            above.resize(std::max<size_t>(above.rfind('/'), 1));
            if (all.count(above) > 0) return true;
        }
        return false;
    };
    const auto firstInner = std::stable_partition(roots.begin(), roots.end(),
                                                  [&](const Root& root) { return !isInner(root); });
    std::sort(firstInner, roots.end(),
              [](const Root& left, const Root& right) { return left.absolute < right.absolute; });
    for (auto root = firstInner; root != roots.end(); ++root)
        inner.insert(root->absolute);
}

bool Walker::State::openNextRoot() {
    while (nextRoot < roots.size()) {
        Root& root = roots[nextRoot++];
        if (reached.count(root.absolute) > 0) continue;
        char* const names[] = {root.path.data(), nullptr};
        const int flags = FTS_PHYSICAL | FTS_NOCHDIR | (options.oneFileSystem ? FTS_XDEV : 0);
        tree.reset(fts_open(names, flags, byName));
        if (tree != nullptr) return true;
        problem(root.path, strerror(errno));
    }
    return false;
}

bool Walker::State::passesOver(const FTSENT& entry) {
    if (options.exclude.empty() && inner.empty()) return false;
    const bool named = entry.fts_level == FTS_ROOTLEVEL;
    const std::string absolute = root().absoluteOf(entry);
    if (!named && isExcluded(options.exclude, entry.fts_path, absolute)) return true;
    if (inner.count(absolute) == 0) return false;
    // fts would list the folder without entering it.
    if (!named && options.oneFileSystem && entersFileSystem(entry)) return true;
    return !reached.insert(absolute).second;
}

std::optional<Entry> Walker::State::take(FTSENT& entry) {
    if (passesOver(entry)) {
        fts_set(tree.get(), &entry, FTS_SKIP);
        return {};
    }
    if (entersFileSystem(entry) && belongsToKernel(entry.fts_path)) {
        if (entry.fts_level == FTS_ROOTLEVEL)
            problem(entry.fts_path, "is the kernel's, not scanned");
        fts_set(tree.get(), &entry, FTS_SKIP);
        return {};
    }
    return Entry{std::string(entry.fts_path, entry.fts_pathlen), statusOf(*entry.fts_statp)};
}

std::optional<Entry> Walker::State::visit(FTSENT& entry) {
    switch (entry.fts_info) {
        case FTS_D:
        case FTS_F:
        case FTS_SL:
        case FTS_SLNONE:
            return take(entry);
        case FTS_NS:
            if (!passesOver(entry)) problem(entry.fts_path, strerror(entry.fts_errno));
            return {};
        case FTS_DNR:  // after FTS_D
        case FTS_ERR:
            problem(entry.fts_path, strerror(entry.fts_errno));
            return {};
        case FTS_DC:
            problem(entry.fts_path, "folder contains itself");
            return {};
        default:  // folders in post-order, devices, pipes, sockets
            return {};
    }
}

Walker::Walker(const WalkOptions& options, ProblemVisitor problem)
    : state_(std::make_unique<State>(options, std::move(problem))) {}

Walker::~Walker() = default;

bool Walker::next(Entry& entry) {
    for (;;) {
        if (state_->tree == nullptr && !state_->openNextRoot()) return false;
        errno = 0;
        FTSENT* met = fts_read(state_->tree.get());
        if (met == nullptr) {
            if (errno != 0) state_->problem(state_->root().path, strerror(errno));
            state_->tree.reset();
        } else if (std::optional<Entry> taken = state_->visit(*met)) {
            entry = std::move(*taken);
            return true;
        }
    }
}

void Tree::add(Entry&& entry) {
    if (entry.status.isFile()) {
        ++files;
        bytes += entry.status.size;
    }
    entries.push_back(std::move(entry));
}

Tree walk(const WalkOptions& options, const ProblemVisitor& problem,
          const std::function<bool()>& stop, const std::function<void(const Tree&)>& counted) {
    Tree tree;
    Walker walker(options, problem);
    for (Entry entry; walker.next(entry);) {
        tree.add(std::move(entry));
        if (tree.entries.size() % kEntriesBetweenStops != 0) continue;
        if (stop()) break;
        if (counted) counted(tree);
    }
    return tree;
}

bool belongsToKernel(const char* path) {
    struct statfs system {};
    if (statfs(path, &system) != 0) return false;
    return system.f_type == PROC_SUPER_MAGIC || system.f_type == SYSFS_MAGIC;
}

bool isExcluded(const std::vector<std::string>& patterns, const std::string& path,
                const std::string& absolute) {
    const char* name = path.c_str() + path.rfind('/') + 1;  // npos + 1 is 0
    return std::any_of(patterns.begin(), patterns.end(), [&](const std::string& pattern) {
        const char* subject = name;
        if (pattern.find('/') != std::string::npos) {
            subject = pattern.front() == '/' ? absolute.c_str() : path.c_str();
        }
        return fnmatch(pattern.c_str(), subject, 0) == 0;
    });
}

tool::ExitCode checkPaths(const std::vector<std::string>& paths) {
    tool::Steps steps;
    for (const std::string& path : paths) {
        steps.run([&] {
            if (const auto problem = pathProblem(path)) {
                throw tool::Failure(tool::ExitCode::kUsage,
                                    tool::printable(path) + ": " + *problem);
            }
        });
    }
    return steps.code();
}

}  // namespace agent
