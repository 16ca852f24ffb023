#include "tools/agent/entry.h"

#include <filesystem>

namespace agent {

FileStatus statusOf(const struct stat& status) {
    return {.mode = status.st_mode,
            .owner = status.st_uid,
            .group = status.st_gid,
            .size = static_cast<uint64_t>(status.st_size),
            .inode = status.st_ino,
            .modified = status.st_mtim,
            .changed = status.st_ctim};
}

/// Called for each entry of a tree, so the working folder is asked for once, and only a path with
/// something to resolve takes the slow way of the standard library. No program here changes its
/// working folder.
std::string absolutePath(const std::string& path) {
    static const std::string here = std::filesystem::current_path();
    std::string absolute = !path.empty() && path[0] == '/' ? path : here + "/" + path;
    if (absolute.find("//") != std::string::npos || absolute.find("/.") != std::string::npos)
        absolute = std::filesystem::path(absolute).lexically_normal();
    if (absolute.size() > 1 && absolute.back() == '/') absolute.pop_back();
    return absolute;
}

}  // namespace agent
