// Where a scan found repeated data: by folder, by type of file, and by first copy.
//
// Thread rule: one thread.
#ifndef TOOLS_AGENT_SCAN_FINDINGS_H
#define TOOLS_AGENT_SCAN_FINDINGS_H

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "tools/agent/top_folders.h"
#include "tools/agent/walk.h"

namespace agent {

/// The data of a folder or a type of file.
struct Share {
    std::string name;
    uint64_t files = 0;
    uint64_t bytes = 0;
    uint64_t repeated = 0;  ///< bytes
};

/// A file whose data is stored again.
struct FirstCopy {
    std::string path;
    uint64_t again = 0;     ///< bytes of all later copies
    uint32_t files = 0;     ///< files with copies
    uint32_t lastFile = 0;  ///< the last of these, counted from 1
};

class Findings {
  public:
    explicit Findings(const WalkOptions& options) : topFolders_(options) {}

    /// Begins the next file. Files are numbered in this order, from 0.
    void addFile(const std::string& path);

    /// Adds bytes of the current file.
    void addData(uint64_t bytes, bool repeated);

    /// Adds bytes of the current file whose first copy is in file number `source`.
    void addCopy(uint32_t source, uint64_t bytes);

    /// The largest folders, then the sum of all others under an empty name.
    std::vector<Share> folders(size_t most) const { return largest(folders_, most); }
    std::vector<Share> types(size_t most) const { return largest(types_, most); }
    std::vector<FirstCopy> copies(size_t most) const;

  private:
    using Shares = std::unordered_map<std::string, Share>;

    static std::vector<Share> largest(const Shares& shares, size_t most);

    TopFolders topFolders_;
    Shares folders_;
    Shares types_;
    Share* folder_ = nullptr;
    Share* type_ = nullptr;
    std::vector<FirstCopy> copies_;
};

}  // namespace agent

#endif
