#include "tools/agent/scan_findings.h"

#include <algorithm>
#include <cctype>

namespace agent {
namespace {

constexpr size_t kLongestType = 12;

/// The last extension of a name in lower case, with its dot; "-" if there is none. A dot at the
/// start of the name does not count.
std::string typeOf(const std::string& path) {
    const size_t name = path.rfind('/') + 1;  // npos + 1 is 0
    const size_t dot = path.rfind('.');
    if (dot == std::string::npos || dot <= name || path.size() - dot > kLongestType) return "-";
    std::string type = path.substr(dot);
    std::transform(type.begin(), type.end(), type.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return type.size() > 1 ? type : "-";
}

}  // namespace

void Findings::addFile(const std::string& path) {
    folder_ = &folders_[topFolders_.of(path)];
    type_ = &types_[typeOf(path)];
    ++folder_->files;
    ++type_->files;
    copies_.push_back({.path = path});
}

void Findings::addData(uint64_t bytes, bool repeated) {
    for (Share* share : {folder_, type_}) {
        share->bytes += bytes;
        if (repeated) share->repeated += bytes;
    }
}

void Findings::addCopy(uint32_t source, uint64_t bytes) {
    FirstCopy& copy = copies_[source];
    copy.again += bytes;
    const auto file = static_cast<uint32_t>(copies_.size());
    if (copy.lastFile != file) ++copy.files;
    copy.lastFile = file;
}

std::vector<Share> Findings::largest(const Shares& shares, size_t most) {
    std::vector<Share> all;
    for (const auto& [name, share] : shares) {
        all.push_back(share);
        all.back().name = name;
    }
    std::sort(all.begin(), all.end(), [](const Share& left, const Share& right) {
        return left.bytes != right.bytes ? left.bytes > right.bytes : left.name < right.name;
    });
    if (all.size() <= most) return all;
    Share others;
    for (size_t i = most - 1; i < all.size(); ++i) {
        others.files += all[i].files;
        others.bytes += all[i].bytes;
        others.repeated += all[i].repeated;
    }
    all.resize(most - 1);
    all.push_back(others);
    return all;
}

std::vector<FirstCopy> Findings::copies(size_t most) const {
    std::vector<FirstCopy> all;
    std::copy_if(copies_.begin(), copies_.end(), std::back_inserter(all),
                 [](const FirstCopy& copy) { return copy.again > 0; });
    std::stable_sort(all.begin(), all.end(), [](const FirstCopy& left, const FirstCopy& right) {
        return left.again > right.again;
    });
    all.resize(std::min(all.size(), most));
    return all;
}

}  // namespace agent
