#include "tools/agent/scan.h"

#include <algorithm>
#include <bit>
#include <chrono>
#include <memory>

#include "platform/status.h"
#include "platform/support.h"
#include "tools/agent/files.h"
#include "tools/agent/progress.h"
#include "tools/shared/cache.h"
#include "tools/shared/text.h"

namespace agent {
namespace {

constexpr char kProgram[] = "kspool-agent";

using tool::CachePointer;

/// Where a segment was met first: the value that the cache keeps with its fingerprint.
struct Location {
    uint32_t file;
    uint32_t segment;

    uint64_t value() const { return uint64_t{file} << 32 | segment; }
    static uint32_t fileOf(uint64_t value) { return static_cast<uint32_t>(value >> 32); }
};

/// What is there to scan, by the sizes of the files.
struct Survey {
    uint64_t bytes = 0;
    uint64_t segments = 0;
};

Survey survey(const ScanOptions& options) {
    Survey found;
    walkFiles(options.paths, options.oneFileSystem,
              {[&](const std::string&, uint64_t size) {
                   found.bytes += size;
                   found.segments += (size + options.segmentSize - 1) / options.segmentSize;
               },
               [](const std::string&, const std::string&) {}});
    return found;
}

CachePointer makeCache(const ScanOptions& options, uint64_t segments) {
    constexpr uint64_t kSmallestArea = 1024;
    constexpr uint64_t kLargestArea = 1 << 20;
    const auto log2RoundedUp =
        static_cast<uint32_t>(std::bit_width(std::max<uint64_t>(segments, 1) - 1));
    const uint32_t bits = std::clamp(log2RoundedUp, 4U, 29U);
    const auto area =
        static_cast<uint32_t>(std::clamp(segments / 200, kSmallestArea, kLargestArea));
    return CachePointer(KSCacheCreate(options.areaSize != 0 ? options.areaSize : area,
                                      options.bits != 0 ? options.bits : bits, options.lock ? 1 : 0,
                                      nullptr, nullptr));
}

/// Collects fingerprints and takes them to the cache many at a time, so that the time spent there
/// can be measured without slowing it down.
class Feeder {
  public:
    Feeder(KSCache* cache, uint32_t fingerprintType, ScanResult& result)
        : cache_(cache), type_(fingerprintType), result_(result) {
        pending_.reserve(kBatch);
    }

    void add(const Digest& digest, uint64_t length, Location location) {
        pending_.push_back({digest, length, location});
        if (pending_.size() == kBatch) flush();
    }

    void flush() {
        const auto start = std::chrono::steady_clock::now();
        for (const Pending& one : pending_)
            ask(one);
        const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
        result_.cacheSeconds += spent.count();
        pending_.clear();
    }

  private:
    static constexpr size_t kBatch = 512;

    struct Pending {
        Digest digest;
        uint64_t length;
        Location location;
    };

    void ask(const Pending& one) {
        uint64_t first = 0;
        if (KSCacheExists(cache_, one.digest.data(), type_, &first) == CR_STATUS_OK) {
            const bool same = Location::fileOf(first) == one.location.file;
            (same ? result_.sameFile : result_.otherFile).count(one.length);
            return;
        }
        const uint32_t status =
            KSCacheAdd(cache_, one.digest.data(), type_, one.location.value(), nullptr);
        (status == CR_STATUS_OK ? result_.unique : result_.uncached).count(one.length);
    }

    KSCache* cache_;
    uint32_t type_;
    ScanResult& result_;
    std::vector<Pending> pending_;
};

void scanFiles(const ScanOptions& options, const DigestKind& kind, Segmenter& segmenter,
               KSCache* cache, Progress& progress, ScanResult& result) {
    Feeder feeder(cache, kind.fingerprintType, result);
    const auto skip = [&](const std::string& path, const std::string& problem) {
        ++result.skipped;
        progress.message(std::string(kProgram) + ": " + tool::printable(path) + ": " + problem);
    };
    uint32_t fileNumber = 0;
    const auto file = [&](const std::string& path, uint64_t) {
        Location location{fileNumber++, 0};
        const std::string problem =
            segmenter.cutFile(path, [&](const Digest& digest, size_t length) {
                feeder.add(digest, length, location);
                ++location.segment;
                progress.advance(length);
            });
        if (problem.empty()) {
            ++result.files;
        } else {
            skip(path, problem);
        }
    };
    walkFiles(options.paths, options.oneFileSystem, {file, skip});
    feeder.flush();
}

}  // namespace

int scan(const ScanOptions& options) {
    if (!pathsAreGood(options.paths)) return tool::kExitUsage;
    const DigestKind& kind = *digestKind(options.digest);
    Segmenter segmenter(kind, options.segmentSize);
    if (!segmenter.problem().empty()) {
        tool::complain(kProgram, segmenter.problem());
        return tool::kExitFailed;
    }
    const Survey found = survey(options);
    *__qlxlog_trace_location() = options.trace ? 1 : 0;

    ScanResult result;
    {
        Progress progress(found.bytes);
        const auto start = std::chrono::steady_clock::now();
        const CachePointer cache = makeCache(options, found.segments);
        if (cache == nullptr) {
            progress.message(std::string(kProgram) + ": no cache could be made: " +
                             CRStatusToStringA(*__cr_errno_location()));
            return tool::kExitFailed;
        }
        scanFiles(options, kind, segmenter, cache.get(), progress, result);
        const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
        result.seconds = spent.count();
        KSCacheStats(cache.get(), &result.cache);
    }
    printScan(options, result);
    return result.skipped == 0 && result.uncached.segments == 0 ? tool::kExitOk
                                                                : tool::kExitPartial;
}

}  // namespace agent
