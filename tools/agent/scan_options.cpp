#include <algorithm>
#include <memory>

#include "tools/agent/options.h"
#include "tools/agent/scan.h"
#include "tools/shared/cache.h"

namespace agent {
namespace {

constexpr char kScanFooter[] =
    "Symbolic links are not followed. A file with two links is read twice. Sizes take\n"
    "B, KiB, MiB, GiB (KB is KiB too).\n"
    "Exit code: 0 all scanned; 1 failed; 2 bad options or paths; 3 scanned, but some\n"
    "files or folders could not be read, some segments were not cached, or it was\n"
    "interrupted; 5 another process holds the cache file.";

constexpr uint32_t kLargestLimit = 1U << 20;

/// --compare: segment sizes, sorted, each once. Excluded options are passed by pointer: CLI11 looks
/// up names in noexcept functions, which would end the program when memory runs out.
CLI::Option* addCompare(CLI::App& scan, ScanOptions& options, CLI::Option* segment) {
    return scan
        .add_option("--compare", options.compare, "Compare segment sizes: 16KiB,128KiB,1MiB")
        ->delimiter(',')
        ->allow_extra_args(false)
        ->transform(CLI::AsSizeValue(false))
        ->check(segmentSizeRange())
        ->type_name("SIZE,...")
        ->excludes(segment);
}

}  // namespace

void addScan(CLI::App& app, tool::ExitCode& code) {
    const auto kept = std::make_shared<ScanOptions>();
    ScanOptions& options = *kept;
    CLI::App* scan = app.add_subcommand("scan", "Show how much data of some trees is repeated");
    addWalkOptions(*scan, options.walk, "scan");
    CLI::Option* segment = addSegmentSize(*scan, options.segmentSize);
    CLI::Option* compare = addCompare(*scan, options, segment);
    addDigest(*scan, options.digest);
    addJobs(*scan, options.jobs);
    scan->add_option("--cache", options.cacheFile, "File that keeps the cache for later scans")
        ->excludes(compare);
    scan->add_option("--limit", options.limit, "Memory limit of a cache's pages, MiB [none]")
        ->check(CLI::Range(1U, kLargestLimit));
    scan->add_option("--bits", options.bits, "The cache gets 2^BITS roots [from the data]")
        ->check(CLI::Range(1U, tool::kLargestBits));
    scan->add_option("--area", options.areaSize, "Slots per cache page [from the data]")
        ->check(CLI::Range(1U, tool::kLargestArea));
    scan->add_flag("--lock", options.lock, "Lock the cache's pages into memory");
    CLI::Option* noCount =
        scan->add_flag("--no-count", options.noCount, "Do not count the files before reading");
    scan->add_option("--report", options.reportFile, "Also write the report as an HTML page")
        ->excludes(noCount);
    scan->add_flag("--json", options.json, "Report as JSON");
    scan->add_flag("--trace", options.trace, "Show the library's traces on stderr");
    scan->footer(kScanFooter);
    scan->callback([kept, &code] {
        std::sort(kept->compare.begin(), kept->compare.end());
        kept->compare.erase(std::unique(kept->compare.begin(), kept->compare.end()),
                            kept->compare.end());
        code = agent::scan(*kept);
    });
}

}  // namespace agent
