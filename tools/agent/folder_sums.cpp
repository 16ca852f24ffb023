#include "tools/agent/folder_sums.h"

#include <algorithm>

namespace agent {

void FolderSums::add(const Entry& file, uint64_t bytes, uint64_t newBytes) {
    const std::string folder = folders_.of(file.path);
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
