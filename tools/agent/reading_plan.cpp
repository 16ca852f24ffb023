#include "tools/agent/reading_plan.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <numeric>

namespace agent {
namespace {

constexpr size_t kFilesOfTask = 64;
constexpr uint64_t kBytesOfTask = uint64_t{1} << 20;
constexpr uint64_t kSmallestPiece = uint64_t{16} << 20;
constexpr uint64_t kLargestPiece = uint64_t{1} << 30;

uint64_t pieceFor(const std::vector<uint64_t>& segmentSizes) {
    uint64_t multiple = 1;
    for (const uint64_t size : segmentSizes) {
        multiple = std::lcm(multiple, size);
        if (multiple > kLargestPiece) return kToEnd;
    }
    return (kSmallestPiece + multiple - 1) / multiple * multiple;
}

}  // namespace

OpenFile::OpenFile(const std::string& path) : readAt(time(nullptr)) {
    constexpr int kFlags = O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    descriptor = kspool::Descriptor(open(path.c_str(), kFlags));
    struct stat found {};
    if (descriptor.get() < 0 || fstat(descriptor.get(), &found) != 0) {
        problem = strerror(errno);
        return;
    }
    status = statusOf(found);
    // Checked again, since the file may have been replaced after the walk.
    if (!status.isFile()) problem = "is no regular file any more";
}

Plan::Plan(const std::vector<const Entry*>& files, const std::vector<uint64_t>& segmentSizes)
    : files_(files), piece_(pieceFor(segmentSizes)) {}

bool Plan::next(Task& task) {
    if (first_ == files_.size()) return false;
    task = Task{};
    task.number = number_++;
    task.first = task.end = first_;
    const uint64_t size = files_[first_]->status.size;
    if (size > piece_) {
        takePiece(size, task);
        return true;
    }
    for (uint64_t bytes = 0; task.end < files_.size(); ++task.end) {
        const uint64_t more = files_[task.end]->status.size;
        const bool full = task.end - first_ == kFilesOfTask || bytes + more > kBytesOfTask;
        if (more > piece_ || (full && task.end > first_)) break;
        bytes += more;
    }
    first_ = task.end;
    return true;
}

void Plan::takePiece(uint64_t size, Task& task) {
    if (offset_ == 0) shared_ = std::make_shared<SharedFile>();
    task.end = first_ + 1;
    task.shared = shared_;
    task.offset = offset_;
    if (size - offset_ > piece_) {
        task.length = piece_;
        offset_ += piece_;
    } else {
        offset_ = 0;
        first_ = task.end;
    }
}

}  // namespace agent
