// What the folders directly below the named paths would add to the pool.
#ifndef TOOLS_AGENT_FOLDER_SUMS_H
#define TOOLS_AGENT_FOLDER_SUMS_H

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "tools/agent/entry.h"
#include "tools/agent/top_folders.h"
#include "tools/agent/walk.h"

namespace agent {

struct FolderSum {
    std::string path;
    uint64_t files = 0;
    uint64_t bytes = 0;
    uint64_t newBytes = 0;
};

class FolderSums {
  public:
    explicit FolderSums(const WalkOptions& walk) : folders_(walk) {}

    void add(const Entry& file, uint64_t bytes, uint64_t newBytes);

    /// The folders, those that would add most first.
    std::vector<FolderSum> take();

  private:
    TopFolders folders_;
    std::unordered_map<std::string, FolderSum> sums_;
};

}  // namespace agent

#endif
