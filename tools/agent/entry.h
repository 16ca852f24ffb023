// One file, folder or symbolic link of a tree, with the part of its status that the agent uses.
#ifndef TOOLS_AGENT_ENTRY_H
#define TOOLS_AGENT_ENTRY_H

#include <sys/stat.h>

#include <cstdint>
#include <ctime>
#include <string>

namespace agent {

/// Smaller than struct stat, since a walk keeps one for each entry of its trees.
struct FileStatus {
    uint32_t mode = 0;
    uint32_t owner = 0;
    uint32_t group = 0;
    uint64_t size = 0;
    uint64_t inode = 0;
    std::timespec modified{};
    std::timespec changed{};

    bool isFile() const { return S_ISREG(mode); }
    bool isFolder() const { return S_ISDIR(mode); }
    bool isLink() const { return S_ISLNK(mode); }
};

FileStatus statusOf(const struct stat& status);

struct Entry {
    std::string path;  ///< a path that the user named, or one below it
    FileStatus status;
};

/// The path as it is recorded: absolute, without "." and "..". Symbolic links are not resolved,
/// except before "..", which leads to the parent of the link's target.
std::string absolutePath(const std::string& path);

}  // namespace agent

#endif
