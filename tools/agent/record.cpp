#include "tools/agent/record.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <optional>
#include <set>

#include "platform/status.h"
#include "tools/agent/cache.h"
#include "tools/agent/digest.h"
#include "tools/agent/files.h"
#include "tools/agent/po.h"
#include "tools/agent/progress.h"
#include "tools/agent/query.h"
#include "tools/agent/record_report.h"
#include "tools/agent/segments.h"
#include "tools/agent/walk.h"
#include "tools/shared/cache.h"
#include "tools/shared/text.h"

namespace agent {
namespace {

using tool::ExitCode;

constexpr size_t kLongestList = size_t{1} << 20;

volatile std::sig_atomic_t interrupted = 0;

void onSignal(int) {
    interrupted = 1;
}

/// Adds the time of its life to a sum.
class Stopwatch {
  public:
    explicit Stopwatch(double& sum) : sum_(sum) {}
    ~Stopwatch() {
        const auto spent = std::chrono::steady_clock::now() - start_;
        sum_ += std::chrono::duration<double>(spent).count();
    }
    Stopwatch(const Stopwatch&) = delete;
    Stopwatch& operator=(const Stopwatch&) = delete;

  private:
    double& sum_;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

/// One run: files go into a list, lists to the server, and the new fingerprints of a confirmed list
/// into the cache. So the cache never knows a segment that no PO records.
class Run {
  public:
    Run(const RecordOptions& options, uint32_t type, tool::Session& session, BackupCache& cache,
        Progress& progress, RecordResult& result)
        : options_(options),
          type_(type),
          session_(session),
          cache_(cache),
          progress_(progress),
          result_(result) {}

    /// Adds a file with its segments to the list. Throws Failure when the list is full and the
    /// server does not confirm it.
    void addFile(Record file, const std::vector<Digest>& digests,
                 const std::vector<size_t>& lengths) {
        ask(digests, lengths, file);
        file.digest = fileDigest(digests);
        file.segments = digests.size();
        list_ += poLine(options_.name, file);
        ++listed_;
        ++result_.files;
        if (listed_ == options_.listSize || list_.size() >= kLongestList) send();
    }

    void send() {
        if (listed_ == 0) return;
        progress_.clear();
        {
            const Stopwatch server(result_.serverSeconds);
            session_.attempt(std::to_string(listed_) + " files", [&](MBSession* session) {
                return MBPOAddList(session, options_.name.dataselection, list_.c_str());
            });
        }
        result_.recorded += listed_;
        {
            const Stopwatch cache(result_.cacheSeconds);
            cache_.remember(keysOf(newDigests_), options_.name.dataselection);
        }
        list_.clear();
        newDigests_.clear();
        listed_ = 0;
    }

  private:
    template <typename Digests>
    std::vector<KSCacheKey> keysOf(const Digests& digests) const {
        std::vector<KSCacheKey> keys;
        keys.reserve(digests.size());
        for (const Digest& digest : digests)
            keys.push_back({digest.data(), type_});
        return keys;
    }

    void ask(const std::vector<Digest>& digests, const std::vector<size_t>& lengths, Record& file) {
        const std::vector<KSCacheKey> keys = keysOf(digests);
        std::vector<uint32_t> statuses(keys.size());
        {
            const Stopwatch cache(result_.cacheSeconds);
            KSCacheExistsBatch(cache_.get(), keys.data(), keys.size(), nullptr, statuses.data());
        }
        for (size_t i = 0; i < statuses.size(); ++i) {
            ++result_.segments;
            result_.bytes += lengths[i];
            if (statuses[i] == CR_STATUS_OK || !newDigests_.insert(digests[i]).second) continue;
            ++file.newSegments;
            ++result_.newSegments;
            result_.newBytes += lengths[i];
        }
    }

    const RecordOptions& options_;
    uint32_t type_;
    tool::Session& session_;
    BackupCache& cache_;
    Progress& progress_;
    RecordResult& result_;
    std::string list_;
    std::set<Digest> newDigests_;  ///< of the files in the list, not confirmed yet
    uint32_t listed_ = 0;
};

/// Backs up the files until all are done, a signal arrives, or the server fails (Failure).
void walk(const RecordOptions& options, Segmenter& segmenter, Progress& progress, Run& run,
          RecordResult& result) {
    const auto skip = [&](const std::string& path, const std::string& problem) {
        ++result.skipped;
        progress.complain(tool::printable(path) + ": " + problem);
    };
    const auto file = [&](const std::string& path, uint64_t) {
        if (interrupted != 0) return;
        Record record;
        struct stat status {};
        std::vector<Digest> digests;
        std::vector<size_t> lengths;
        record.path = absolutePath(path);
        std::optional<std::string> problem;
        if (lstat(path.c_str(), &status) != 0) {
            problem = strerror(errno);
        } else {
            problem = segmenter.cutFile(path, [&](const Digest& digest, size_t length) {
                digests.push_back(digest);
                lengths.push_back(length);
                progress.advance(length);
            });
        }
        if (problem) return skip(path, *problem);
        record.status = statusOf(status);
        record.cut = Cut{options.digest, options.segmentSize};
        record.recordedAt = record.readAt = time(nullptr);
        run.addFile(std::move(record), digests, lengths);
    };
    walkFiles(options.paths, options.oneFileSystem,
              {file, [&](const std::string& path, const std::string& problem) {
                   if (interrupted == 0) skip(path, problem);
               }});
    run.send();
}

/// Records the image and its retention, and checks that the server knows as many files as were
/// sent.
void finish(const RecordOptions& options, tool::Session& session, RecordResult& result) {
    const Stopwatch server(result.serverSeconds);
    const ImageName& n = options.name;
    session.attemptEvent("image " + n.image, [&](MBSession* s) {
        return MBSetLastImageV2(s, n.dataselection, n.client.c_str(), n.policy.c_str(), 0,
                                static_cast<uint64_t>(time(nullptr)), n.image.c_str(), 0);
    });
    if (options.retention != 0) {
        session.attemptEvent("retention", [&](MBSession* s) {
            return MBSetImageRetention(s, n.dataselection, n.client.c_str(), n.policy.c_str(),
                                       n.image.c_str(), 0, 0, options.retention);
        });
    }
    result.found = countFiles(n, session);
    if (result.found >= result.recorded) return;
    throw tool::Failure("the server knows of " + std::to_string(result.found) + " files only; " +
                        std::to_string(result.recorded) + " were recorded");
}

uint64_t totalSize(const RecordOptions& options, uint64_t& segments) {
    uint64_t bytes = 0;
    walkFiles(options.paths, options.oneFileSystem,
              {[&](const std::string&, uint64_t size) {
                   bytes += size;
                   segments += size / options.segmentSize + 1;
               },
               [](const std::string&, const std::string&) {}});
    return bytes;
}

ExitCode exitCode(const RecordResult& result, ExitCode code) {
    if (code != ExitCode::kOk) return code;
    const bool whole = !result.interrupted && result.skipped == 0;
    return whole ? ExitCode::kOk : ExitCode::kPartial;
}

}  // namespace

ExitCode record(const RecordOptions& options) {
    if (const ExitCode code = checkPaths(options.paths); code != ExitCode::kOk) return code;
    tool::Session session(options.session);
    signal(SIGINT, onSignal);
    signal(SIGTERM, onSignal);

    uint64_t segments = 0;
    const uint64_t bytes = totalSize(options, segments);
    BackupCache cache(options.cacheFile, uint64_t{options.limit} << 20, segments);
    const DigestKind& kind = *digestKind(options.digest);
    Segmenter segmenter(kind, options.segmentSize);
    if (const auto problem = cache.load()) {
        tool::complain("note: " + options.cacheFile + " is not used: " + *problem);
    }

    RecordResult result;
    tool::Steps steps;
    const auto start = std::chrono::steady_clock::now();
    {
        Progress progress(bytes, /*takesMessages=*/false);
        Run run(options, kind.fingerprintType, session, cache, progress, result);
        steps.run([&] { walk(options, segmenter, progress, run, result); });
    }
    result.interrupted = interrupted != 0;
    if (steps.allDone() && !result.interrupted) {
        steps.run([&] { finish(options, session, result); });
    }
    // After a failure too: the cache has the fingerprints of all lists that were confirmed.
    steps.run([&] {
        const Stopwatch watch(result.cacheSeconds);
        cache.save(steps.allDone() && !result.interrupted);
    });
    KSCacheStatsRecord stats{};
    KSCacheStats(cache.get(), &stats);
    result.cached = stats.cachedItems;
    const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
    result.seconds = spent.count();
    printRecord(options, result);
    return exitCode(result, steps.code());
}

}  // namespace agent
