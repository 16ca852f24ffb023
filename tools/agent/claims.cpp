#include "tools/agent/claims.h"

#include <algorithm>
#include <utility>

#include "tools/shared/failure.h"
#include "tools/shared/text.h"

namespace agent {
namespace {

/// The coarsest resolution of file times, in seconds: two writes within it may leave the same time.
constexpr int64_t kTimeGrain = 2;

bool sameTime(const std::timespec& a, const std::timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

bool isUnchanged(const EarlierReading& then, const FileStatus& now) {
    const auto settled = [&](const std::timespec& time) {
        return time.tv_sec + kTimeGrain < then.readAt;
    };
    return then.status.size == now.size && then.status.inode == now.inode &&
           sameTime(then.status.modified, now.modified) &&
           sameTime(then.status.changed, now.changed) && settled(now.modified) &&
           settled(now.changed);
}

}  // namespace

Claims::Claims(tool::Session& session, const Facts& facts) : session_(session), facts_(facts) {
    list();
}

void Claims::list() {
    records_ = listImages(session_, facts_.binding.dataselection, "", "");
}

bool Claims::hasRecord(const ImageName& name) const {
    return std::any_of(records_.begin(), records_.end(),
                       [&](const ImageRecord& r) { return isSame(r.name, name); });
}

bool Claims::isLive(uint64_t number) {
    const auto known = live_.find(number);
    if (known != live_.end()) return known->second;
    const ImageFact* image = facts_.byNumber(number);
    const bool live = image != nullptr && hasRecord(image->name) && compare(*image);
    live_[number] = live;
    return live;
}

/// True if the POs on the server have the sum of those that were recorded. Also collects the files
/// of the image that readNewest() is reading.
bool Claims::compare(const ImageFact& image) {
    ImageSum sum;
    findImage(session_, image.name, [&](FoundPO&& po, std::string_view) {
        sum.add(po.record);
        if (image.number != newest_ || !po.record.status.isFile()) return;
        const ImageFact* reader = facts_.byRun(po.record.readRun);
        if (reader == nullptr || po.record.cut != facts_.binding.cut) return;
        files_[po.record.path] = {po.record.status, po.record.digest, po.record.segments,
                                  po.record.readAt, reader->number};
    });
    return sum == image.sum;
}

void Claims::readNewest(const ImageName& name) {
    for (auto image = facts_.images.rbegin(); image != facts_.images.rend(); ++image) {
        if (image->name.client != name.client || image->name.policy != name.policy) continue;
        newest_ = image->number;
        if (isLive(newest_)) break;
        files_.clear();
    }
    // Ask the server now, once: readingOf() is called for each file.
    for (const auto& [path, reading] : files_)
        isLive(reading.image);
}

const EarlierReading* Claims::readingOf(const std::string& path, const FileStatus& status) {
    const auto found = files_.find(path);
    if (found == files_.end() || !isUnchanged(found->second, status)) return nullptr;
    return isLive(found->second.image) ? &found->second : nullptr;
}

void Claims::checkStillThere(const std::set<uint64_t>& numbers) {
    list();
    live_.clear();
    newest_ = 0;  // do not collect files again
    for (const uint64_t number : numbers) {
        if (isLive(number)) continue;
        const ImageFact* image = facts_.byNumber(number);
        throw tool::Failure("image " +
                            (image != nullptr ? tool::printable(image->name.image) : "") +
                            " was expired or changed during the run; run it again");
    }
}

}  // namespace agent
