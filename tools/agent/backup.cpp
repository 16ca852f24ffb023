#include "tools/agent/backup.h"

#include <openssl/sha.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <set>

#include "platform/status.h"
#include "tools/agent/cache.h"
#include "tools/agent/files.h"
#include "tools/agent/progress.h"
#include "tools/agent/record.h"
#include "tools/shared/text.h"

namespace agent {
namespace {

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

std::string hexOf(const unsigned char* bytes, size_t length) {
    std::string text(2 * length, '\0');
    for (size_t i = 0; i < length; ++i)
        snprintf(text.data() + 2 * i, 3, "%02x", bytes[i]);
    return text;
}

/// One run: files go into a list, lists to the server, and what a confirmed list holds to the
/// cache. So the cache never knows of data that no PO stands for.
class Run {
  public:
    Run(const BackupOptions& options, uint32_t type, pool::Session& session, BackupCache& cache,
        Progress& progress, BackupResult& result)
        : options_(options),
          type_(type),
          session_(session),
          cache_(cache),
          progress_(progress),
          result_(result) {}

    /// Takes a file's segments in; `code` is not 0 once the server has failed.
    void addFile(FileRecord file, const std::vector<Digest>& digests,
                 const std::vector<size_t>& lengths) {
        ask(digests, lengths, file);
        file.digest = hexOf(digestOf(digests).data(), sizeof(Digest));
        file.segments = digests.size();
        list_ += poLine(options_.name, file, time(nullptr));
        ++listed_;
        ++result_.files;
        if (listed_ == options_.listSize || list_.size() >= kLongestList) send();
    }

    void send() {
        if (listed_ == 0 || code_ != tool::kExitOk) return;
        progress_.clear();
        {
            const Stopwatch server(result_.serverSeconds);
            code_ = session_.attempt(std::to_string(listed_) + " files", [&](MBSession* session) {
                return MBPOAddList(session, options_.name.dataselection, list_.c_str());
            });
        }
        if (code_ != tool::kExitOk) return;
        result_.recorded += listed_;
        {
            const Stopwatch cache(result_.cacheSeconds);
            cache_.remember(keysOf(newDigests_), options_.name.dataselection);
        }
        list_.clear();
        newDigests_.clear();
        listed_ = 0;
    }

    int code() const { return code_; }

  private:
    static Digest digestOf(const std::vector<Digest>& digests) {
        Digest all{};
        SHA256(reinterpret_cast<const unsigned char*>(digests.data()),
               digests.size() * sizeof(Digest), all.data());
        return all;
    }

    template <typename Digests>
    std::vector<KSCacheKey> keysOf(const Digests& digests) const {
        std::vector<KSCacheKey> keys;
        keys.reserve(digests.size());
        for (const Digest& digest : digests)
            keys.push_back({digest.data(), type_});
        return keys;
    }

    void ask(const std::vector<Digest>& digests, const std::vector<size_t>& lengths,
             FileRecord& file) {
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

    const BackupOptions& options_;
    uint32_t type_;
    pool::Session& session_;
    BackupCache& cache_;
    Progress& progress_;
    BackupResult& result_;
    std::string list_;
    std::set<Digest> newDigests_;  ///< of the files in the list; the cache does not know them yet
    uint32_t listed_ = 0;
    int code_ = tool::kExitOk;
};

void walk(const BackupOptions& options, Segmenter& segmenter, Progress& progress, Run& run,
          BackupResult& result) {
    const auto skip = [&](const std::string& path, const std::string& problem) {
        ++result.skipped;
        progress.message(std::string(pool::kProgram) + ": " + tool::printable(path) + ": " +
                         problem);
    };
    const auto goesOn = [&] { return run.code() == tool::kExitOk && interrupted == 0; };
    const auto file = [&](const std::string& path, uint64_t) {
        if (!goesOn()) return;
        FileRecord record;
        std::vector<Digest> digests;
        std::vector<size_t> lengths;
        record.path = std::filesystem::absolute(path).lexically_normal();
        if (lstat(path.c_str(), &record.status) != 0) return skip(path, strerror(errno));
        const std::string problem =
            segmenter.cutFile(path, [&](const Digest& digest, size_t length) {
                digests.push_back(digest);
                lengths.push_back(length);
                progress.advance(length);
            });
        if (!problem.empty()) return skip(path, problem);
        run.addFile(std::move(record), digests, lengths);
    };
    walkFiles(options.paths, options.oneFileSystem,
              {file, [&](const std::string& path, const std::string& problem) {
                   if (goesOn()) skip(path, problem);
               }});
    run.send();
}

/// The image's record, its retention, and whether the server knows as many files as were sent.
int finish(const BackupOptions& options, pool::Session& session, BackupResult& result) {
    const Stopwatch server(result.serverSeconds);
    const ImageName& n = options.name;
    int code = session.attemptEvent("image " + n.image, [&](MBSession* s) {
        return MBSetLastImageV2(s, n.dataselection, n.client.c_str(), n.policy.c_str(), 0,
                                static_cast<uint64_t>(time(nullptr)), n.image.c_str(), 0);
    });
    if (code == tool::kExitOk && options.retention != 0) {
        code = session.attemptEvent("retention", [&](MBSession* s) {
            return MBSetImageRetention(s, n.dataselection, n.client.c_str(), n.policy.c_str(),
                                       n.image.c_str(), 0, 0, options.retention);
        });
    }
    if (code == tool::kExitOk) code = countFiles(n, session, result.found);
    if (code == tool::kExitOk && result.found < result.recorded) {
        tool::complain(pool::kProgram, "the server knows of " + std::to_string(result.found) +
                                           " files only; " + std::to_string(result.recorded) +
                                           " were recorded");
        return tool::kExitFailed;
    }
    return code;
}

uint64_t totalSize(const BackupOptions& options, uint64_t& segments) {
    uint64_t bytes = 0;
    walkFiles(options.paths, options.oneFileSystem,
              {[&](const std::string&, uint64_t size) {
                   bytes += size;
                   segments += size / options.segmentSize + 1;
               },
               [](const std::string&, const std::string&) {}});
    return bytes;
}

int exitCode(const BackupResult& result, int code) {
    if (code != tool::kExitOk) return code;
    const bool whole = !result.interrupted && result.skipped == 0;
    return whole ? tool::kExitOk : tool::kExitPartial;
}

}  // namespace

int backup(const BackupOptions& options) {
    if (!pathsAreGood(options.paths)) return tool::kExitUsage;
    const DigestKind& kind = *digestKind(options.digest);
    Segmenter segmenter(kind, options.segmentSize);
    pool::Session session(options.session);
    if (session.code() != tool::kExitOk) return session.code();
    signal(SIGINT, onSignal);
    signal(SIGTERM, onSignal);

    uint64_t segments = 0;
    const uint64_t bytes = totalSize(options, segments);
    BackupCache cache(options, segments);
    if (cache.get() == nullptr || !segmenter.problem().empty()) {
        tool::complain(pool::kProgram,
                       cache.get() == nullptr ? "no cache could be made" : segmenter.problem());
        return tool::kExitFailed;
    }
    const std::string unread = cache.load();
    if (!unread.empty()) {
        tool::complain(pool::kProgram, "note: " + options.cacheFile + " is not used: " + unread);
    }

    BackupResult result;
    int code = tool::kExitOk;
    const auto start = std::chrono::steady_clock::now();
    {
        Progress progress(bytes, /*takesMessages=*/false);
        Run run(options, kind.fingerprintType, session, cache, progress, result);
        walk(options, segmenter, progress, run, result);
        code = run.code();
    }
    result.interrupted = interrupted != 0;
    if (code == tool::kExitOk && !result.interrupted) code = finish(options, session, result);
    std::string unsaved;
    {
        const Stopwatch watch(result.cacheSeconds);
        unsaved = cache.save(code == tool::kExitOk && !result.interrupted);
    }
    if (!unsaved.empty()) {
        tool::complain(pool::kProgram, options.cacheFile + ": " + unsaved);
        code = std::max(code, int{tool::kExitFailed});
    }
    KSCacheStatsRecord stats{};
    KSCacheStats(cache.get(), &stats);
    result.cached = stats.cachedItems;
    const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
    result.seconds = spent.count();
    printBackup(options, result);
    return exitCode(result, code);
}

}  // namespace agent
