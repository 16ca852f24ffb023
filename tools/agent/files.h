// Walking the trees that a user names.
#ifndef TOOLS_AGENT_FILES_H
#define TOOLS_AGENT_FILES_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace agent {

/// Told of each regular file with its size, and of each problem.
struct FileVisitor {
    std::function<void(const std::string& path, uint64_t size)> file;
    std::function<void(const std::string& path, const std::string& problem)> problem;
};

/// Visits every regular file below the paths, in the order of names within each folder. Symbolic
/// links are not followed; they are passed over like any other file that is not regular. A file
/// that is reached by two paths is visited twice. The kernel's own file systems are a problem.
void walkFiles(const std::vector<std::string>& paths, bool oneFileSystem,
               const FileVisitor& visitor);

}  // namespace agent

#endif
