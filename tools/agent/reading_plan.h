// How the files of a list are distributed to threads: several small ones per task, a large one in
// pieces.
//
// Thread rule: a Plan is used by one thread at a time. A SharedFile may be used by all.
#ifndef TOOLS_AGENT_READING_PLAN_H
#define TOOLS_AGENT_READING_PLAN_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "common/owned.h"
#include "tools/agent/entry.h"

namespace agent {

inline constexpr uint64_t kToEnd = UINT64_MAX;

/// An open file, with its status before it was read.
struct OpenFile {
    explicit OpenFile(const std::string& path);

    kspool::Descriptor descriptor{-1};
    FileStatus status;
    int64_t readAt = 0;  ///< seconds since 1970
    std::optional<std::string> problem;
};

/// A file that is read in pieces. The first thread that needs the file opens it.
class SharedFile {
  public:
    const OpenFile& opened(const std::string& path) {
        const std::lock_guard lock(mutex_);
        if (!file_) file_.emplace(path);
        return *file_;
    }

  private:
    std::mutex mutex_;
    std::optional<OpenFile> file_;
};

/// Some whole files, or a piece of one.
struct Task {
    uint64_t number = 0;
    size_t first = 0;
    size_t end = 0;
    std::shared_ptr<SharedFile> shared;  ///< NULL for whole files
    uint64_t offset = 0;
    uint64_t length = kToEnd;
};

/// Cuts the list into tasks, in its order. The length of each piece but the last is a multiple of
/// all segment sizes; if no common multiple is small enough, no file is read in pieces.
class Plan {
  public:
    Plan(const std::vector<const Entry*>& files, const std::vector<uint64_t>& segmentSizes);

    /// False at the end.
    bool next(Task& task);

  private:
    void takePiece(uint64_t size, Task& task);

    const std::vector<const Entry*>& files_;
    uint64_t piece_;
    uint64_t number_ = 0;
    size_t first_ = 0;
    uint64_t offset_ = 0;
    std::shared_ptr<SharedFile> shared_;
};

}  // namespace agent

#endif
