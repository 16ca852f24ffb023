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

std::string absolutePath(const std::string& path) {
    std::string absolute = std::filesystem::absolute(path).lexically_normal();
    if (absolute.size() > 1 && absolute.back() == '/') absolute.pop_back();
    return absolute;
}

}  // namespace agent
