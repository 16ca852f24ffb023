// kspool-agent: the command line.
#include <CLI/CLI.hpp>
#include <clocale>
#include <cstdio>
#include <new>

#include "tools/agent_scan.h"
#include "tools/agent_segments.h"
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

void addScan(CLI::App& app, agent::ScanOptions& options) {
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
}

int run(int argc, char** argv) {
    CLI::App app("Backup agent of a storage pool that knows data by its fingerprints.",
                 "kspool-agent");
    agent::ScanOptions scanOptions;
    addScan(app, scanOptions);
    app.require_subcommand(1);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) return app.exit(error);
        tool::complain("kspool-agent", std::string(error.what()) + " (see kspool-agent --help)");
        return tool::kExitUsage;
    }
    return agent::scan(scanOptions);
}

}  // namespace

int main(int argc, char** argv) {
    setlocale(LC_CTYPE, "");
    try {
        const int code = run(argc, argv);
        if (fflush(stdout) == 0 && ferror(stdout) == 0) return code;
        tool::complain("kspool-agent", "the report could not be written");
    } catch (const std::bad_alloc&) {
        tool::complain("kspool-agent", "not enough memory");
    } catch (const std::exception& error) {
        tool::complain("kspool-agent", error.what());
    }
    return tool::kExitFailed;
}
