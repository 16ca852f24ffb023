#include "tools/agent/record.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <memory>
#include <optional>
#include <random>

#include "platform/status.h"
#include "tools/agent/binding.h"
#include "tools/agent/cache.h"
#include "tools/agent/claims.h"
#include "tools/agent/digest.h"
#include "tools/agent/facts.h"
#include "tools/agent/folder_sums.h"
#include "tools/agent/options.h"
#include "tools/agent/outbox.h"
#include "tools/agent/progress.h"
#include "tools/agent/query.h"
#include "tools/agent/reading.h"
#include "tools/agent/record_finish.h"
#include "tools/agent/record_report.h"
#include "tools/shared/signals.h"
#include "tools/shared/text.h"

namespace agent {
namespace {

using tool::ExitCode;
using tool::Interrupts;

/// A unique name for a run.
std::string newRun() {
    std::random_device random;
    std::array<char, 17> text{};
    snprintf(text.data(), text.size(), "%08x%08x", random(), random());
    return text.data();
}

/// Whether a signal has ended the request that failed, which the report tells.
bool isAborted(const tool::Failure& failure) {
    return Interrupts::asked() && failure.code() == ExitCode::kNetwork;
}

/// Runs a step. Throws its Failure, unless a signal has ended it.
template <typename Step>
void unlessAborted(Step step) {
    try {
        step();
    } catch (const tool::Failure& failure) {
        if (!isAborted(failure)) throw;
    }
}

class Recording {
  public:
    Recording(const RecordOptions& options, tool::Session& session)
        : options_(options),
          session_(session),
          kind_(*digestKind(options.digest)),
          cut_{options.digest, options.segmentSize},
          file_(options.cacheFile, options.wait ? Interrupts::asked : std::function<bool()>()),
          facts_(factsFor(file_,
                          {session.server(), session.poolId(), options.name.dataselection, cut_},
                          options.rebind)),
          claims_(session, facts_),
          sums_(options.walk) {}

    /// Throws Failure while the image is not known to be recorded; what fails afterwards is one of
    /// the steps.
    void run(tool::Steps& steps);

    RecordResult& result() { return result_; }

  private:
    void openCache(uint64_t segments);
    void untie();
    void sort(const Tree& tree, std::vector<const Entry*>& toRead);
    void recordUnread(const Entry& entry, std::string path, const EarlierReading& reading);
    void recordOther(const Entry& entry);
    void take(ReadFile&& file);
    void dropDead();
    void readAll(const std::vector<const Entry*>& files);
    void finish(tool::Steps& steps);
    void saveCache();
    std::set<uint64_t> metImages();
    void skip(const std::string& path, const std::string& problem);

    const RecordOptions& options_;
    tool::Session& session_;
    const DigestKind& kind_;
    Cut cut_;
    HeldFile file_;
    Facts facts_;
    Claims claims_;
    ImageFact image_;  ///< the one being recorded
    std::optional<BlockCache> cache_;
    std::optional<Outbox> outbox_;
    EarlierPOs earlier_;
    Progress progress_{std::nullopt, /*takesMessages=*/false};
    FolderSums sums_;             ///< of a dry run
    std::set<uint64_t> readFor_;  ///< images for which unread files were read
    RecordResult result_;
};

void Recording::skip(const std::string& path, const std::string& problem) {
    ++result_.skipped;
    earlier_.skipped.insert(absolutePath(path));
    progress_.complain(tool::printable(path) + ": " + problem);
}

/// Loads the cache. A cache that does not match its facts is not used.
void Recording::openCache(uint64_t segments) {
    const Stopwatch watch(result_.cacheSeconds);
    const uint64_t entries = std::max(segments, file_.entries());
    cache_.emplace(entries, uint64_t{options_.limit} << 20);
    if (options_.rebind) return;
    std::optional<std::string> why = cache_->load(file_);
    const std::string sum = cache_->sum();
    std::vector<std::string>& sums = facts_.caches;
    if (!why) {
        if (sums.empty() && sum == kNoEntries) return;
        if (std::find(sums.begin(), sums.end(), sum) != sums.end()) {
            sums = {sum};
            return;
        }
        why = sums.empty()        ? "no facts tell what its entries are of"
              : sum == kNoEntries ? "it is missing"
                                  : "it is not the one of " + factsPath(file_.path());
    }
    cache_->clear();
    facts_.images.clear();
    sums.clear();
    tool::complain("note: " + options_.cacheFile + " is not used: " + *why);
}

/// Removes an earlier recording of this name from the facts, before the server is changed.
void Recording::untie() {
    image_.name = options_.name;
    image_.number = facts_.next++;
    image_.run = newRun();
    facts_.untie(options_.name);
    if (options_.dryRun) return;
    if (!file_.path().empty()) {
        if (facts_.caches.empty()) facts_.caches = {kNoEntries};
        saveFacts(factsPath(file_.path()), facts_);
    }
    const Stopwatch server(result_.serverSeconds);
    try {
        earlier_.complete =
            claims_.hasRecord(options_.name) && deleteImage(session_, options_.name);
        result_.begun = true;
    } catch (const tool::Failure& failure) {
        if (failure.code() == ExitCode::kNetwork) {  // it may have been deleted
            result_.begun = true;
            result_.complete = Outcome::kUnknown;
        }
        throw;
    }
}

void Recording::recordOther(const Entry& entry) {
    Record record;
    record.path = absolutePath(entry.path);
    record.status = entry.status;
    record.recordedAt = time(nullptr);
    if (entry.status.isLink()) {
        std::array<char, PATH_MAX> target{};
        const ssize_t length = readlink(entry.path.c_str(), target.data(), target.size());
        if (length < 0) return skip(entry.path, strerror(errno));
        record.target.assign(target.data(), static_cast<size_t>(length));
        ++result_.links;
    } else {
        ++result_.folders;
    }
    outbox_->add(record);
}

void Recording::recordUnread(const Entry& entry, std::string path, const EarlierReading& reading) {
    Record record;
    record.path = std::move(path);
    record.status = entry.status;
    record.recordedAt = time(nullptr);
    record.digest = reading.digest;
    record.cut = cut_;
    record.segments = reading.segments;
    record.readAt = reading.readAt;
    const ImageFact& image = *facts_.byNumber(reading.image);
    record.readRun = image.run;
    record.readImage = image.name.image;
    readFor_.insert(image.number);
    ++result_.files;
    ++result_.unread;
    result_.segments += reading.segments;
    result_.bytes += entry.status.size;
    if (options_.dryRun) sums_.add(entry, entry.status.size, 0);
    outbox_->add(record);
}

/// Records entries that need not be read, and lists the files that must be read.
void Recording::sort(const Tree& tree, std::vector<const Entry*>& toRead) {
    for (const Entry& entry : tree.entries) {
        if (Interrupts::asked()) return;
        if (!entry.status.isFile()) {
            recordOther(entry);
            continue;
        }
        std::string path = absolutePath(entry.path);
        const EarlierReading* reading =
            options_.force ? nullptr : claims_.readingOf(path, entry.status);
        if (reading != nullptr) {
            recordUnread(entry, std::move(path), *reading);
        } else {
            toRead.push_back(&entry);
        }
    }
}

/// Looks up the segments of a file that was read, and records the file.
void Recording::take(ReadFile&& file) {
    if (options_.session.verbose) progress_.clear();  // messages about requests follow
    if (file.problem) return skip(file.entry->path, *file.problem);
    const std::vector<Digest>& digests = file.digests.front();
    std::vector<uint32_t> statuses(digests.size());
    {
        const Stopwatch watch(result_.cacheSeconds);
        KSCacheExistsBatch(cache_->get(), keysOf(digests, kind_.fingerprintType).data(),
                           digests.size(), nullptr, statuses.data());
    }
    Record record;
    uint64_t newBytes = 0;
    for (size_t i = 0; i < statuses.size(); ++i) {
        if (statuses[i] == CR_STATUS_OK || !outbox_->isNew(digests[i])) continue;
        const bool last = i + 1 == statuses.size();
        newBytes += last ? file.bytes - i * cut_.segmentSize : cut_.segmentSize;
        ++record.newSegments;
    }
    record.path = absolutePath(file.entry->path);
    record.status = file.status;
    record.digest = fileDigest(digests);
    record.cut = cut_;
    record.segments = digests.size();
    record.recordedAt = time(nullptr);
    record.readAt = file.readAt;
    record.readRun = image_.run;
    record.readImage = options_.name.image;
    ++result_.files;
    result_.bytes += file.bytes;
    result_.segments += record.segments;
    result_.newSegments += record.newSegments;
    result_.newBytes += newBytes;
    if (options_.dryRun) sums_.add(*file.entry, file.bytes, newBytes);
    outbox_->add(record);
}

/// The images on which this run relies: those of the known segments and of the unread files.
std::set<uint64_t> Recording::metImages() {
    std::set<uint64_t> numbers = cache_->metValues();
    numbers.erase(image_.number);
    numbers.insert(readFor_.begin(), readFor_.end());
    return numbers;
}

/// The retention comes before the cache, which takes time. What is known stays known when the
/// server refuses a retention.
void Recording::finish(tool::Steps& steps) {
    RecordFinish end(options_, session_, *outbox_, earlier_, result_);
    {
        const Stopwatch server(result_.serverSeconds);
        claims_.checkStillThere(metImages());
        image_.sum = end.settlePOs();
        end.setRecord();
        progress_.clear();  // before a failure is reported
        steps.run([&] { unlessAborted([&] { end.setRetention(); }); });
    }
    if (file_.path().empty()) return;
    const Stopwatch watch(result_.cacheSeconds);
    result_.cacheSaved = steps.run([&] { saveCache(); });
}

/// Replaces both files, the facts first. Removes the facts of images without a record.
void Recording::saveCache() {
    cache_->makeRoom();
    cache_->tieMet(image_.number);
    std::erase_if(facts_.images, [&](const ImageFact& i) { return !claims_.hasRecord(i.name); });
    facts_.images.push_back(image_);
    facts_.caches.push_back(cache_->sum());
    saveFacts(factsPath(file_.path()), facts_);
    file_.replace(cache_->get());
}

void Recording::readAll(const std::vector<const Entry*>& files) {
    uint64_t bytes = 0;
    for (const Entry* entry : files)
        bytes += entry->status.size;
    progress_.begin(bytes);
    const ReadOptions how{.digest = &kind_,
                          .segmentSizes = {cut_.segmentSize},
                          .jobs = options_.jobs,
                          .advance = [&](uint64_t more) { progress_.advance(more); }};
    readFiles(
        files, how, [&](ReadFile&& file) { take(std::move(file)); }, Interrupts::asked);
}

/// Drops the segments that are not in a live image.
void Recording::dropDead() {
    const Stopwatch server(result_.serverSeconds);
    claims_.readNewest(options_.name);
    std::set<uint64_t> live;
    for (const auto& [number, entries] : cache_->ties()) {
        if (claims_.isLive(number)) live.insert(number);
    }
    cache_->keep(live);
}

void Recording::run(tool::Steps& steps) {
    const struct Cleared {
        Progress& progress;
        ~Cleared() { progress.clear(); }  // before a failure is reported
    } cleared{progress_};
    const Tree tree = walk(
        options_.walk, [&](const auto& path, const auto& problem) { skip(path, problem); },
        Interrupts::asked, [&](const Tree& so) { progress_.count(so.files, so.bytes); });
    progress_.clear();
    if (Interrupts::asked()) return;
    if (tree.entries.empty()) throw tool::Failure(ExitCode::kUsage, "there is nothing to record");
    openCache(tree.bytes / cut_.segmentSize + tree.files);
    if (Interrupts::asked()) return;  // nothing was changed so far
    untie();
    dropDead();
    outbox_.emplace(options_, kind_.fingerprintType, image_.number, session_, *cache_, result_);
    std::vector<const Entry*> toRead;
    sort(tree, toRead);
    readAll(toRead);
    if (Interrupts::asked()) return;
    outbox_->send();
    if (options_.dryRun) {
        result_.complete = Outcome::kYes;
    } else {
        finish(steps);
    }
    result_.cached = cache_->stats().cachedItems;
    result_.byFolder = sums_.take();
}

/// Whether nothing is left for which a signal may have come too early.
bool isDone(const RecordOptions& options, const RecordResult& result) {
    const bool retained =
        options.dryRun || options.retention == 0 || result.retentionSet == Outcome::kYes;
    return result.complete == Outcome::kYes && retained;
}

ExitCode exitCode(const RecordResult& result, ExitCode code) {
    if (code != ExitCode::kOk) return code;
    const bool whole = !result.interrupted && result.skipped == 0;
    return whole ? ExitCode::kOk : ExitCode::kPartial;
}

}  // namespace

ExitCode record(RecordOptions options) {
    readPathList(options.walk);
    if (options.digest.empty()) options.digest = defaultDigest(options.session.config);
    if (const ExitCode code = checkPaths(options.walk.paths); code != ExitCode::kOk) return code;
    tool::Session session(options.session);
    Interrupts interrupts;
    interrupts.abort(session.handle());
    std::optional<Recording> recording;
    try {
        recording.emplace(options, session);
    } catch (const tool::Failure&) {
        if (!Interrupts::asked()) throw;
        throw tool::Failure(ExitCode::kPartial, "interrupted; nothing was recorded");
    }
    RecordResult& result = recording->result();
    tool::Steps steps;
    {
        const Stopwatch watch(result.seconds);
        steps.run([&] { unlessAborted([&] { recording->run(steps); }); });
    }
    result.interrupted = Interrupts::asked() && !isDone(options, result);
    // Of a run that has failed before it changed anything, the failure says all.
    if (result.begun || steps.allDone()) printRecord(options, result);
    return exitCode(result, steps.code());
}

}  // namespace agent
