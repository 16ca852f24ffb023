// Walking the trees that a user names, once, before any file is read.
#ifndef TOOLS_AGENT_WALK_H
#define TOOLS_AGENT_WALK_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tools/agent/entry.h"
#include "tools/shared/failure.h"

namespace agent {

struct WalkOptions {
    std::vector<std::string> paths;    ///< files and folders, at least one
    std::vector<std::string> exclude;  ///< patterns as of fnmatch(3); see isExcluded()
    bool oneFileSystem = false;
};

/// Told of a file or folder that cannot be walked, or not wholly.
using ProblemVisitor = std::function<void(const std::string& path, const std::string& problem)>;

/// The entries of some trees: a folder comes before its entries, which are in the order of names.
struct Tree {
    std::vector<Entry> entries;
    uint64_t files = 0;  ///< regular ones
    uint64_t bytes = 0;  ///< of these, by their sizes when the walk met them
};

/// Lists the regular files, folders and symbolic links below the paths. Symbolic links are listed
/// and not followed. A path that is reached from two of the named paths is listed once; two hard
/// links are two paths. The kernel's own file systems are a problem. `stop` is asked now and then:
/// the list ends when it says so.
Tree walk(const WalkOptions& options, const ProblemVisitor& problem,
          const std::function<bool()>& stop);

/// kOk when all paths that a user named can be walked, else kUsage: each of the others has then
/// been complained of.
tool::ExitCode checkPaths(const std::vector<std::string>& paths);

}  // namespace agent

#endif
