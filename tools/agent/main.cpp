// kspool-agent: the command line.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>

#include "tools/agent/backup.h"
#include "tools/agent/image.h"
#include "tools/agent/query.h"
#include "tools/agent/scan.h"
#include "tools/agent/segments.h"
#include "tools/shared/cache.h"
#include "tools/shared/program.h"
#include "tools/shared/session_options.h"

namespace {

constexpr uint64_t kSmallestSegment = 512;
constexpr uint64_t kLargestSegment = uint64_t{1} << 30;
constexpr size_t kLongestName = 255;

constexpr char kScanFooter[] =
    "Symbolic links are not followed; a file with two links or paths is read twice. Sizes take\n"
    "B, KiB, MiB, GiB (KB is KiB too).\n"
    "Exit code: 0 all scanned; 1 failed; 2 bad options or paths; 3 scanned, but some files\n"
    "or folders could not be read, or some fingerprints found no memory.";

void addScan(CLI::App& app, tool::ExitCode& code) {
    const auto kept = std::make_shared<agent::ScanOptions>();
    agent::ScanOptions& options = *kept;
    CLI::App* scan = app.add_subcommand("scan", "Show how much data of some trees is repeated");
    scan->add_option("PATH", options.paths, "Files and folders to scan")->required();
    scan->add_option("--segment", options.segmentSize, "Segment size")
        ->transform(CLI::AsSizeValue(false))
        ->check(CLI::Range(kSmallestSegment, kLargestSegment, "512 B to 1 GiB"))
        ->default_str("128KiB");
    scan->add_option("--digest", options.digest, "Digest that names a segment")
        ->check(CLI::IsMember(agent::digestNames()))
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

constexpr char kBackupFooter[] =
    "One PO for each file is recorded on the pool's server; the cache tells which data is new. "
    "The\n"
    "password comes from --password-file or $KSPOOL_PASSWORD.\n"
    "Exit code: 0 all recorded; 1 failed; 2 bad options; 3 some files could not be read, or it "
    "was\n"
    "interrupted; 10 nothing found; 12 permission denied; 13 no answer from the server.";

/// A name as a field of a PO holds it. Patterns are for finding only: with one, expire would match
/// other images as well.
CLI::Validator nameText(bool pattern) {
    const std::string excluded = pattern ? "|%" : "|%*?";
    return {[=](std::string& text) -> std::string {
                if (text.empty() || text.size() > kLongestName) return "has 1 to 255 characters";
                const auto bad = [&](char c) {
                    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f ||
                           excluded.find(c) != std::string::npos;
                };
                const bool good = std::none_of(text.begin(), text.end(), bad);
                return good ? "" : "may hold none of " + excluded + " and no control characters";
            },
            ""};
}

/// Adds the options that name an image, and returns that for the image itself.
CLI::Option* addImageName(CLI::App& command, agent::ImageName& name, bool patterns) {
    name.client = agent::thisHost();
    command.add_option("--ds", name.dataselection, "Data selection")->capture_default_str();
    command.add_option("--client", name.client, "Client [this machine]")->check(nameText(patterns));
    command.add_option("--policy", name.policy, "Policy")
        ->check(nameText(patterns))
        ->capture_default_str();
    return command.add_option("--image", name.image, "Name of the image")
        ->check(nameText(patterns));
}

void addBackup(CLI::App& app, tool::ExitCode& code) {
    const auto kept = std::make_shared<agent::BackupOptions>();
    agent::BackupOptions& options = *kept;
    CLI::App* command = app.add_subcommand("backup", "Record files on the pool's server");
    command->add_option("PATH", options.paths, "Files and folders to back up")->required();
    tool::addSessionOptions(*command, options.session);
    addImageName(*command, options.name, false)->required();
    command->add_option("--cache", options.cacheFile, "File of the fingerprint cache [none]");
    command->add_option("--limit", options.limit, "Memory limit of the cache, MiB")
        ->check(CLI::Range(1U, 1U << 20))
        ->capture_default_str();
    command->add_option("--segment", options.segmentSize, "Segment size")
        ->transform(CLI::AsSizeValue(false))
        ->check(CLI::Range(kSmallestSegment, kLargestSegment, "512 B to 1 GiB"))
        ->default_str("128KiB");
    command->add_option("--list", options.listSize, "Files that are recorded at once")
        ->check(CLI::Range(1U, 100'000U))
        ->capture_default_str();
    command->add_option("--retention", options.retention, "Seconds to keep the image [not set]");
    command->add_flag("-x,--one-file-system", options.oneFileSystem,
                      "Do not enter other file systems");
    command->add_flag("--json", options.json, "Report as JSON");
    command->footer(kBackupFooter);
    command->callback([kept, &code] { code = agent::backup(*kept); });
}

void addQueries(CLI::App& app, tool::ExitCode& code) {
    constexpr struct {
        const char* name;
        const char* description;
        tool::ExitCode (*run)(const agent::QueryOptions&);
        bool finds;
    } kQueries[] = {
        {"find", "List the files that are recorded", agent::find, true},
        {"expire", "Expire the files of an image, and the image", agent::expire, false},
    };
    for (const auto& row : kQueries) {
        const auto kept = std::make_shared<agent::QueryOptions>();
        CLI::App* command = app.add_subcommand(row.name, row.description);
        tool::addSessionOptions(*command, kept->session);
        CLI::Option* image = addImageName(*command, kept->name, row.finds);
        if (row.finds) {
            command->add_option("NAME", kept->pattern, "Pattern of file names [*]");
        } else {
            image->required();
        }
        command->add_flag("--json", kept->json, "Report as JSON");
        command->footer(kBackupFooter);
        command->callback([kept, run = row.run, &code] { code = run(*kept); });
    }
}

void addCommands(CLI::App& app, tool::ExitCode& code) {
    addScan(app, code);
    addBackup(app, code);
    addQueries(app, code);
}

}  // namespace

int main(int argc, char** argv) {
    return tool::runProgram(
        {.name = "kspool-agent",
         .description = "Backup agent of a storage pool that knows data by its fingerprints.",
         .failed = tool::ExitCode::kFailed,
         .addCommands = addCommands},
        argc, argv);
}
