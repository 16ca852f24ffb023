#include <memory>

#include "tools/agent/options.h"
#include "tools/agent/record.h"
#include "tools/agent/segments.h"
#include "tools/shared/session_options.h"

namespace agent {
namespace {

constexpr char kBackupFooter[] =
    "One PO for each file is recorded on the pool's server; the cache tells which data is new. "
    "The\n"
    "password comes from --password-file or $KSPOOL_PASSWORD.\n"
    "Exit code: 0 all recorded; 1 failed; 2 bad options; 3 some files could not be read, or it "
    "was\n"
    "interrupted; 10 nothing found; 12 permission denied; 13 no answer from the server.";

}  // namespace

void addRecord(CLI::App& app, tool::ExitCode& code) {
    const auto kept = std::make_shared<RecordOptions>();
    RecordOptions& options = *kept;
    CLI::App* command = app.add_subcommand("record", "Record files on the pool's server");
    command->add_option("PATH", options.paths, "Files and folders to record")->required();
    tool::addSessionOptions(*command, options.session);
    addImageName(*command, options.name, false)->required();
    command->add_option("--cache", options.cacheFile, "File of the fingerprint cache [none]");
    command->add_option("--limit", options.limit, "Memory limit of the cache, MiB")
        ->check(CLI::Range(1U, 1U << 20))
        ->capture_default_str();
    addSegmentSize(*command, options.segmentSize);
    command->add_option("--list", options.listSize, "Files that are recorded at once")
        ->check(CLI::Range(1U, 100'000U))
        ->capture_default_str();
    command->add_option("--retention", options.retention, "Seconds to keep the image [not set]");
    command->add_flag("-x,--one-file-system", options.oneFileSystem,
                      "Do not enter other file systems");
    command->add_flag("--json", options.json, "Report as JSON");
    command->footer(kBackupFooter);
    command->callback([kept, &code] { code = agent::record(*kept); });
}

}  // namespace agent
