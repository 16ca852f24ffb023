#include "tools/agent/record_finish.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "tools/agent/query.h"
#include "tools/shared/failure.h"
#include "tools/shared/signals.h"
#include "tools/shared/text.h"

namespace agent {
namespace {

/// False only when it is certain: a path in a folder that cannot be searched may be there.
bool mayBeThere(const Record& record) {
    struct stat now {};
    if (lstat(record.path.c_str(), &now) != 0) return errno != ENOENT && errno != ENOTDIR;
    return (now.st_mode & S_IFMT) == (record.status.mode & S_IFMT);
}

/// Whether the path, or a folder above it, is in the set.
bool isAtOrBelow(const std::set<std::string>& set, std::string path) {
    while (set.count(path) == 0) {
        const size_t slash = path.rfind('/');
        if (slash == std::string::npos || path.size() == 1) return false;
        path.resize(std::max<size_t>(slash, 1));
    }
    return true;
}

/// What a failure of a change leaves open.
Outcome outcomeOf(const tool::Failure& failure) {
    return failure.code() == tool::ExitCode::kNetwork ? Outcome::kUnknown : Outcome::kNo;
}

}  // namespace

RecordFinish::RecordFinish(const RecordOptions& options, tool::Session& session,
                           const Outbox& outbox, const EarlierPOs& earlier, RecordResult& result)
    : options_(options), session_(session), outbox_(outbox), earlier_(earlier), result_(result) {}

bool RecordFinish::keeps(const Record& record) const {
    const bool sound = earlier_.complete || record.newSegments == record.segments;
    return sound && isAtOrBelow(earlier_.skipped, record.path) && mayBeThere(record);
}

/// Sorts the POs of the image. What is kept is decided once: a file may vanish between two
/// comparisons. Throws Failure when not exactly what was sent is there.
void RecordFinish::compare(bool first) {
    stale_.clear();
    sum_ = {};
    result_.found = 0;
    ImageSum sent;
    findImage(session_, options_.name, [&](FoundPO&& po, std::string_view line) {
        const Record& record = po.record;
        ++result_.found;
        if (outbox_.paths().count(record.path) != 0) {
            sent.add(record);
        } else if (first && keeps(record)) {
            kept_.insert(record.path);
        } else if (kept_.count(record.path) == 0) {
            ++result_.stale;
            stale_.append(line).append("\n");
            return;
        }
        sum_.add(record);
    });
    result_.kept = kept_.size();
    if (sent == outbox_.sum()) return;
    if (sent.pos == outbox_.paths().size()) {
        throw tool::Failure(
            "the server has other records of these paths: is the image recorded "
            "elsewhere at the same time?");
    }
    throw tool::Failure("the server has " + tool::humanCount(sent.pos) + " of the " +
                        tool::humanCount(outbox_.paths().size()) + " entries that were recorded");
}

ImageSum RecordFinish::settlePOs() {
    compare(/*first=*/true);
    if (stale_.empty()) return sum_;
    expirePOs(session_, options_.name.dataselection, stale_);
    compare(/*first=*/false);
    if (!stale_.empty()) throw tool::Failure("the server keeps POs that were expired");
    return sum_;
}

void RecordFinish::setRecord() {
    const int64_t when = time(nullptr);
    try {
        setImage(session_, options_.name, when);
        result_.complete = Outcome::kYes;
    } catch (const tool::Failure& failure) {
        result_.complete = askForRecord(when, outcomeOf(failure));
        if (result_.complete != Outcome::kYes) throw;
    }
}

/// The time tells the record of this run from one that another run has set since.
Outcome RecordFinish::askForRecord(int64_t when, Outcome otherwise) {
    if (tool::Interrupts::asked()) return otherwise;
    const ImageName& n = options_.name;
    try {
        const std::vector<ImageRecord> records =
            listImages(session_, n.dataselection, n.client, n.policy);
        const bool set = std::any_of(records.begin(), records.end(), [&](const ImageRecord& r) {
            return isSame(r.name, n) && r.time == when;
        });
        return set ? Outcome::kYes : Outcome::kNo;
    } catch (const tool::Failure&) {
        return otherwise;  // the failure before is the one that is reported
    }
}

void RecordFinish::setRetention() {
    if (options_.retention == 0) return;
    const ImageName& n = options_.name;
    try {
        session_.attemptEvent("retention of image " + tool::printable(n.image), [&](MBSession* s) {
            return MBSetImageRetention(s, n.dataselection, n.client.c_str(), n.policy.c_str(),
                                       n.image.c_str(), 0, 0, options_.retention);
        });
        result_.retentionSet = Outcome::kYes;
    } catch (const tool::Failure& failure) {
        result_.retentionSet = outcomeOf(failure);
        throw;
    }
}

}  // namespace agent
