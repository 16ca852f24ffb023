#include <memory>

#include "tools/agent/options.h"
#include "tools/agent/scan.h"
#include "tools/agent/segments.h"
#include "tools/shared/cache.h"

namespace agent {
namespace {

constexpr char kScanFooter[] =
    "Symbolic links are not followed; a file with two links or paths is read twice. Sizes take\n"
    "B, KiB, MiB, GiB (KB is KiB too).\n"
    "Exit code: 0 all scanned; 1 failed; 2 bad options or paths; 3 scanned, but some files\n"
    "or folders could not be read, or some fingerprints found no memory.";

}  // namespace

void addScan(CLI::App& app, tool::ExitCode& code) {
    const auto kept = std::make_shared<ScanOptions>();
    ScanOptions& options = *kept;
    CLI::App* scan = app.add_subcommand("scan", "Show how much data of some trees is repeated");
    scan->add_option("PATH", options.paths, "Files and folders to scan")->required();
    addSegmentSize(*scan, options.segmentSize);
    scan->add_option("--digest", options.digest, "Digest that names a segment")
        ->check(CLI::IsMember(digestNames()))
        ->capture_default_str();
    scan->add_option("--bits", options.bits, "The cache gets 2^BITS roots [from the data]")
        ->check(CLI::Range(1U, tool::kLargestBits));
    scan->add_option("--area", options.areaSize, "Slots per cache page [from the data]")
        ->check(CLI::Range(1U, tool::kLargestArea));
    scan->add_flag("--lock", options.lock, "Lock the cache's pages into memory");
    scan->add_flag("-x,--one-file-system", options.oneFileSystem,
                   "Do not enter other file systems");
    scan->add_flag("--json", options.json, "Report as JSON");
    scan->add_flag("--trace", options.trace, "Show the library's traces on stderr");
    scan->footer(kScanFooter);
    scan->callback([kept, &code] { code = agent::scan(*kept); });
}

}  // namespace agent
