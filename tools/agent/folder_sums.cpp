#include "tools/agent/folder_sums.h"

#include <algorithm>

namespace agent {

FolderSums::FolderSums(const WalkOptions& walk) {
    for (const auto* paths : {&walk.paths, &walk.listed})
        for (const std::string& path : *paths)  // entries do not repeat a slash at the end
            roots_.insert(path.substr(0, std::max<size_t>(path.find_last_not_of('/') + 1, 1)));
}

/// The folder below the nearest named path that has the file, or that path itself.
std::string FolderSums::folderOf(const std::string& path) const {
    for (std::string folder = path; roots_.count(folder) == 0;) {
        const size_t slash = folder.rfind('/');
        if (slash == std::string::npos || slash == 0) return folder;
        const std::string above = folder.substr(0, slash);
        if (roots_.count(above) != 0) return folder == path ? above : folder;
        folder = above;
    }
    return path;
}

void FolderSums::add(const Entry& file, uint64_t bytes, uint64_t newBytes) {
    const std::string folder = folderOf(file.path);
    FolderSum& sum = sums_[folder];
    sum.path = folder;
    ++sum.files;
    sum.bytes += bytes;
    sum.newBytes += newBytes;
}

std::vector<FolderSum> FolderSums::take() {
    std::vector<FolderSum> list;
    for (auto& [path, sum] : sums_)
        list.push_back(std::move(sum));
    std::sort(list.begin(), list.end(), [](const FolderSum& a, const FolderSum& b) {
        return a.newBytes != b.newBytes ? a.newBytes > b.newBytes : a.path < b.path;
    });
    return list;
}

}  // namespace agent
