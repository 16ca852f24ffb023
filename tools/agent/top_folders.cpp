#include "tools/agent/top_folders.h"

#include <algorithm>

namespace agent {
namespace {

/// Removes slashes at the end, since the paths of a walk do not have those of a named path.
std::string withoutSlashes(const std::string& path) {
    return path.substr(0, std::max<size_t>(path.find_last_not_of('/') + 1, 1));
}

/// The folder of a path: "." for a bare name, "/" for an entry of the root.
std::string above(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return withoutSlashes(path.substr(0, std::max<size_t>(slash, 1)));
}

}  // namespace

TopFolders::TopFolders(const WalkOptions& options) {
    for (const auto* paths : {&options.paths, &options.listed})
        for (const std::string& path : *paths)
            named_.insert(withoutSlashes(path));
}

std::string TopFolders::of(const std::string& file) const {
    if (named_.count(file) != 0) return above(file);
    for (std::string path = file;;) {
        const std::string next = above(path);
        if (named_.count(next) != 0) return path == file ? next : path;
        if (next == path || next == ".") return above(file);
        path = next;
    }
}

}  // namespace agent
