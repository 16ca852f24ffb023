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

namespace {

/// Resolves "." and "..". A ".." after a symbolic link leads to the parent of the link's target.
std::string resolved(const std::filesystem::path& path) {
    std::filesystem::path plain;
    for (const auto& part : path) {
        std::error_code failure;
        if (part == ".." && std::filesystem::is_symlink(plain, failure)) {
            const auto target = std::filesystem::canonical(plain, failure);
            if (!failure) plain = target;
        }
        plain = part == ".." ? plain.parent_path() : plain / part;
    }
    return plain.lexically_normal();
}

}  // namespace

/// Called for each entry of a tree, so the working directory is queried only once (no program here
/// changes it), and only paths with something to resolve take the slow way.
std::string absolutePath(const std::string& path) {
    static const std::string here = std::filesystem::current_path();
    std::string absolute = !path.empty() && path[0] == '/' ? path : here + "/" + path;
    if (absolute.find("//") != std::string::npos || absolute.find("/.") != std::string::npos)
        absolute = resolved(absolute);
    while (absolute.size() > 1 && absolute.back() == '/')
        absolute.pop_back();
    return absolute;
}

}  // namespace agent
