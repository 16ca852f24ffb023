// kspool-agent: the command line.
#include <CLI/CLI.hpp>
#include <memory>

#include "tools/agent_scan.h"
#include "tools/agent_segments.h"
#include "tools/tool_main.h"
#include "tools/tool_text.h"

namespace {

constexpr uint64_t kSmallestSegment = 512;
constexpr uint64_t kLargestSegment = uint64_t{1} << 30;
constexpr uint32_t kLargestArea = 59'652'323;

constexpr char kScanFooter[] =
    "Symbolic links are not followed; a file with two links or paths is read twice. Sizes take\n"
    "B, KiB, MiB, GiB (KB is KiB too).\n"
    "Exit code: 0 all scanned; 1 failed; 2 bad options or paths; 3 scanned, but some files\n"
    "or folders could not be read, or some fingerprints found no memory.";

void addScan(CLI::App& app, int& code) {
    const auto kept = std::make_shared<agent::ScanOptions>();
    agent::ScanOptions& options = *kept;
    CLI::App* scan =
        app.add_subcommand("scan", "Show how much of some trees is the same data twice");
    scan->add_option("PATH", options.paths, "Files and folders to scan")->required();
    scan->add_option("--segment", options.segmentSize, "Segment size")
        ->transform(CLI::AsSizeValue(false))
        ->check(CLI::Range(kSmallestSegment, kLargestSegment, "512 B to 1 GiB"))
        ->default_str("128KiB");
    scan->add_option("--digest", options.digest, "Digest that names a segment")
        ->check(CLI::IsMember(agent::digestNames()))
        ->capture_default_str();
    scan->add_option("--bits", options.bits, "The cache gets 2^BITS roots [from the data]")
        ->check(CLI::Range(1U, 29U));
    scan->add_option("--area", options.areaSize, "Slots per cache page [from the data]")
        ->check(CLI::Range(1U, kLargestArea));
    scan->add_flag("--lock", options.lock, "Lock the cache's pages into memory");
    scan->add_flag("-x,--one-file-system", options.oneFileSystem,
                   "Do not enter other file systems");
    scan->add_flag("--json", options.json, "Report as JSON");
    scan->add_flag("--trace", options.trace, "Show the library's traces on stderr");
    scan->footer(kScanFooter);
    scan->callback([kept, &code] { code = agent::scan(*kept); });
}

}  // namespace

int main(int argc, char** argv) {
    return tool::runProgram(
        {.name = "kspool-agent",
         .description = "Backup agent of a storage pool that knows data by its fingerprints.",
         .failed = tool::kExitFailed,
         .addCommands = addScan},
        argc, argv);
}
