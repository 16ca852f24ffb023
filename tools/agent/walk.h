// Walking the trees that a user names, once, before any file is read.
#ifndef TOOLS_AGENT_WALK_H
#define TOOLS_AGENT_WALK_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tools/agent/entry.h"
#include "tools/shared/failure.h"

namespace agent {

struct WalkOptions {
    std::vector<std::string> paths;    ///< files and folders that the command line names
    std::vector<std::string> listed;   ///< those in the list; not checked before the walk
    std::string listFile;              ///< where `listed` comes from: "-" for standard input
    bool nullSeparated = false;        ///< paths in the list end with NUL, not with a line end
    std::vector<std::string> exclude;  ///< patterns, see isExcluded()
    bool oneFileSystem = false;
};

/// Called for a file or folder that cannot be walked completely.
using ProblemVisitor = std::function<void(const std::string& path, const std::string& problem)>;

/// The entries of some trees: a folder comes before its entries, which are in the order of names.
struct Tree {
    std::vector<Entry> entries;
    uint64_t files = 0;  ///< regular ones
    uint64_t bytes = 0;  ///< of these, by their sizes when the walk met them

    void add(Entry&& entry);
};

/// Lists the regular files, folders and symbolic links below the paths, one per call. Symbolic
/// links are listed and not followed. A path that is reached from two of the named paths is listed
/// once; two hard links are two paths. Excluded folders are not entered. The kernel's own file
/// systems are skipped; one that is named is reported as a problem.
class Walker {
  public:
    Walker(const WalkOptions& options, ProblemVisitor problem);
    ~Walker();
    Walker(const Walker&) = delete;
    Walker& operator=(const Walker&) = delete;

    /// False at the end.
    bool next(Entry& entry);

  private:
    struct State;
    std::unique_ptr<State> state_;
};

/// All entries of the trees. `stop` is called from time to time; the list ends once it returns
/// true. `counted`, which may be empty, is called as often with the list so far.
Tree walk(const WalkOptions& options, const ProblemVisitor& problem,
          const std::function<bool()>& stop, const std::function<void(const Tree&)>& counted = {});

/// Whether a path is in a file system of the kernel's own, such as /proc, whose files look regular
/// although some never end.
bool belongsToKernel(const char* path);

/// Whether a pattern of fnmatch(3) matches; `*` matches slashes as well. A pattern without a slash
/// is compared with the last name of the path, one that begins with a slash with the absolute path,
/// any other with the path as it is listed.
bool isExcluded(const std::vector<std::string>& patterns, const std::string& path,
                const std::string& absolute);

/// kOk if all paths that a user named can be walked, else kUsage after reporting each that cannot.
tool::ExitCode checkPaths(const std::vector<std::string>& paths);

}  // namespace agent

#endif
