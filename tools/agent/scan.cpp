#include "tools/agent/scan.h"

#include <chrono>
#include <optional>

#include "platform/status.h"
#include "platform/support.h"
#include "tools/agent/files.h"
#include "tools/agent/progress.h"
#include "tools/agent/scan_report.h"
#include "tools/agent/segments.h"
#include "tools/agent/walk.h"
#include "tools/shared/cache.h"
#include "tools/shared/text.h"

namespace agent {
namespace {

using tool::CachePointer;
using tool::ExitCode;

/// The place where a segment was met first: the value that the cache keeps with its fingerprint.
struct Location {
    uint32_t file;
    uint32_t segment;

    uint64_t value() const { return uint64_t{file} << 32 | segment; }
    static uint32_t fileOf(uint64_t value) { return static_cast<uint32_t>(value >> 32); }
};

/// The amount to scan, by the sizes of the files before they are read.
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
    const tool::CacheSettings chosen = tool::settingsFor(segments);
    CachePointer cache(KSCacheCreate(options.areaSize != 0 ? options.areaSize : chosen.areaSize,
                                     options.bits != 0 ? options.bits : chosen.bits,
                                     options.lock ? 1 : 0, nullptr, nullptr));
    if (cache != nullptr) return cache;
    throw tool::Failure(std::string("no cache could be made: ") +
                        CRStatusToStringA(*__cr_errno_location()));
}

/// Collects fingerprints and asks the cache many at a time: reading the clock around each single
/// lookup would take longer than the lookup.
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
        progress.complain(tool::printable(path) + ": " + problem);
    };
    uint32_t fileNumber = 0;
    const auto file = [&](const std::string& path, uint64_t) {
        Location location{fileNumber++, 0};
        const std::optional<std::string> problem =
            segmenter.cutFile(path, [&](const Digest& digest, size_t length) {
                feeder.add(digest, length, location);
                ++location.segment;
                progress.advance(length);
            });
        if (problem) return skip(path, *problem);
        ++result.files;
    };
    walkFiles(options.paths, options.oneFileSystem, {file, skip});
    feeder.flush();
}

}  // namespace

ExitCode scan(const ScanOptions& options) {
    if (const ExitCode code = checkPaths(options.paths); code != ExitCode::kOk) return code;
    const DigestKind& kind = *digestKind(options.digest);
    Segmenter segmenter(kind, options.segmentSize);
    const Survey found = survey(options);
    *__qlxlog_trace_location() = options.trace ? 1 : 0;

    ScanResult result;
    {
        Progress progress(found.bytes);
        const auto start = std::chrono::steady_clock::now();
        const CachePointer cache = makeCache(options, found.segments);
        scanFiles(options, kind, segmenter, cache.get(), progress, result);
        const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
        result.seconds = spent.count();
        KSCacheStats(cache.get(), &result.cache);
    }
    printScan(options, result);
    return result.skipped == 0 && result.uncached.segments == 0 ? ExitCode::kOk
                                                                : ExitCode::kPartial;
}

}  // namespace agent
