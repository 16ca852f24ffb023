#include "tools/agent/scan.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <optional>

#include "platform/support.h"
#include "tools/agent/options.h"
#include "tools/agent/progress.h"
#include "tools/agent/reading.h"
#include "tools/agent/scan_cache.h"
#include "tools/agent/scan_findings.h"
#include "tools/agent/scan_html.h"
#include "tools/agent/scan_report.h"
#include "tools/shared/messages.h"
#include "tools/shared/signals.h"
#include "tools/shared/text.h"

namespace agent {
namespace {

using tool::ExitCode;

constexpr size_t kFilesOfChunk = 20'000;            // files listed at once without counting first
constexpr uint64_t kUncounted = uint64_t{1} << 20;  // entries to expect without counting first
constexpr size_t kSegmentsOfBatch = 512;

/// One run of scan(). The segments of several files are looked up together: reading the clock
/// around each lookup would take longer than the lookup.
class Scan {
  public:
    Scan(const ScanOptions& options, const HeldFile* file)
        : options_(options), kind_(*digestKind(options.digest)), file_(file) {
        if (!options.reportFile.empty()) findings_.emplace(options.walk);
    }

    void run() {
        const auto start = std::chrono::steady_clock::now();
        options_.noCount ? scanUncounted() : scanCounted();
        result_.interrupted = tool::Interrupts::asked();
        const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
        result_.seconds = spent.count();
        for (size_t i = 0; i < caches_.size(); ++i)
            KSCacheStats(caches_[i].get(), &result_.sizes[i].cache);
        progress_.clear();
    }

    const ScanResult& result() const { return result_; }
    const std::optional<Findings>& findings() const { return findings_; }
    const KSCache* firstCache() const { return caches_.front().get(); }

  private:
    void scanCounted() {
        const Tree tree = walk(
            options_.walk, [&](const auto& path, const auto& problem) { skip(path, problem); },
            tool::Interrupts::asked, [&](const Tree& so) { progress_.count(so.files, so.bytes); });
        for (const uint64_t size : options_.sizes()) {
            uint64_t segments = 0;
            for (const Entry& entry : tree.entries)
                if (entry.status.isFile()) segments += (entry.status.size + size - 1) / size;
            makeCache(size, segments);
        }
        progress_.begin(tree.bytes);
        read(tree);
    }

    /// Lists and reads files in chunks, so that the list takes little memory.
    void scanUncounted() {
        for (const uint64_t size : options_.sizes())
            makeCache(size, kUncounted);
        Walker walker(options_.walk,
                      [&](const auto& path, const auto& problem) { skip(path, problem); });
        for (bool more = true; more && !tool::Interrupts::asked();) {
            Tree chunk;
            Entry entry;
            while (chunk.files < kFilesOfChunk && (more = walker.next(entry)))
                if (entry.status.isFile()) chunk.add(std::move(entry));
            read(chunk);
        }
    }

    void makeCache(uint64_t segmentSize, uint64_t segments) {
        const uint64_t known = file_ != nullptr ? file_->entries() : 0;
        caches_.emplace_back(options_, kind_, known + segments);
        if (file_ != nullptr) caches_.back().load(*file_);
        result_.sizes.emplace_back().segmentSize = segmentSize;
    }

    void read(const Tree& tree) {
        std::vector<const Entry*> files;
        files.reserve(tree.files);
        for (const Entry& entry : tree.entries)
            if (entry.status.isFile()) files.push_back(&entry);
        ReadOptions reading;
        reading.digest = &kind_;
        reading.segmentSizes = options_.sizes();
        reading.jobs = options_.jobs;
        reading.advance = [&](uint64_t bytes) { progress_.advance(bytes); };
        readFiles(
            files, reading, [&](ReadFile&& file) { take(std::move(file)); },
            tool::Interrupts::asked);
        flush();
    }

    void take(ReadFile&& file) {
        if (file.problem) {
            skip(file.entry->path, *file.problem);
        } else {
            ++result_.files;
        }
        pendingSegments_ += file.digests.empty() ? 0 : file.digests.front().size();
        pending_.push_back(std::move(file));
        if (pendingSegments_ >= kSegmentsOfBatch || pending_.size() == kSegmentsOfBatch) flush();
    }

    void flush() {
        for (size_t i = 0; i < caches_.size(); ++i) {
            const auto start = std::chrono::steady_clock::now();
            uint32_t number = fileNumber_;
            for (const ReadFile& file : pending_)
                ask(file, i, number++);
            const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
            result_.sizes[i].cacheSeconds += spent.count();
        }
        fileNumber_ += static_cast<uint32_t>(pending_.size());
        pending_.clear();
        pendingSegments_ = 0;
    }

    /// Looks up the segments of one size. The findings are those of the first size.
    void ask(const ReadFile& file, size_t sizeIndex, uint32_t number) {
        SizeResult& size = result_.sizes[sizeIndex];
        Findings* findings = findings_ && sizeIndex == 0 ? &*findings_ : nullptr;
        if (findings != nullptr) findings->addFile(file.entry->path);
        if (file.digests.empty()) return;
        uint64_t left = file.bytes;
        for (const Digest& digest : file.digests[sizeIndex]) {
            const uint64_t length = std::min(left, size.segmentSize);
            left -= length;
            uint32_t source = 0;
            const Fate fate = caches_[sizeIndex].ask(digest, number, source);
            size.of(fate).count(length);
            if (findings == nullptr) continue;
            const bool copied = fate == Fate::kSameFile || fate == Fate::kOtherFile;
            findings->addData(length, copied || fate == Fate::kEarlier);
            if (copied) findings->addCopy(source, length);
        }
    }

    void skip(const std::string& path, const std::string& problem) {
        ++result_.skipped;
        progress_.complain(tool::printable(path) + ": " + problem);
    }

    const ScanOptions& options_;
    const DigestKind& kind_;
    const HeldFile* file_;
    Progress progress_;
    ScanResult result_;
    std::vector<ScanCache> caches_;
    std::optional<Findings> findings_;
    std::vector<ReadFile> pending_;
    size_t pendingSegments_ = 0;
    uint32_t fileNumber_ = 0;  ///< of the first pending file
};

std::ofstream openPage(const std::string& path, std::ios::openmode how) {
    std::ofstream file(path, std::ios::binary | how);
    if (!file) throw tool::Failure(tool::printable(path) + ": " + strerror(errno));
    return file;
}

void writePage(const ScanOptions& options, const std::string& page) {
    std::ofstream file = openPage(options.reportFile, std::ios::trunc);
    file << page;
    file.close();
    if (!file) throw tool::Failure(tool::printable(options.reportFile) + ": not written");
}

ExitCode codeFor(const ScanResult& result) {
    bool whole = result.skipped == 0 && !result.interrupted;
    for (const SizeResult& size : result.sizes)
        whole = whole && size.of(Fate::kUncached).segments == 0;
    return whole ? ExitCode::kOk : ExitCode::kPartial;
}

/// Silences the library's messages, which say the same as the Failure.
void hold(std::optional<HeldFile>& file, const std::string& path) {
    const tool::Messages unheard(/*shown=*/false);
    file.emplace(path);
}

void replace(const HeldFile& file, const KSCache* cache) {
    const tool::Messages unheard(/*shown=*/false);
    file.replace(cache);
}

}  // namespace

ExitCode scan(ScanOptions options) {
    readPathList(options.walk);
    if (const ExitCode code = checkPaths(options.walk.paths); code != ExitCode::kOk) return code;
    if (options.digest.empty()) options.digest = defaultDigest("");
    std::optional<HeldFile> file;
    if (!options.cacheFile.empty()) hold(file, options.cacheFile);
    // Before hours of reading, and without touching the page of before.
    if (!options.reportFile.empty()) openPage(options.reportFile, std::ios::app);
    const tool::Interrupts interrupts;
    *__qlxlog_trace_location() = options.trace ? 1 : 0;

    Scan scan(options, file ? &*file : nullptr);
    scan.run();
    printScan(options, scan.result());  // first: it does not depend on files
    tool::Steps steps;
    if (file) steps.run([&] { replace(*file, scan.firstCache()); });
    if (scan.findings()) {
        steps.run([&] { writePage(options, scanPage(options, scan.result(), *scan.findings())); });
    }
    return steps.allDone() ? codeFor(scan.result()) : steps.code();
}

}  // namespace agent
