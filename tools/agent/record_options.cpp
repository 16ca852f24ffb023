#include <memory>

#include "tools/agent/options.h"
#include "tools/agent/record.h"
#include "tools/agent/segments.h"
#include "tools/shared/session_options.h"

namespace agent {
namespace {

constexpr char kDescription[] =
    "Record which files there are, as POs on the pool's server; no data is moved";

constexpr char kFooter[] =
    "The cache tells how much of the data is new: a segment counts as known only while an\n"
    "image that holds it is on the server. Files that have not changed since the last image\n"
    "are not read again. The password comes from --password-file or $KSPOOL_PASSWORD.\n"
    "Exit code: 0 all recorded; 1 failed; 2 bad options, or a cache that is bound to\n"
    "another server; 3 some files could not be read, or it was interrupted; 5 another\n"
    "process holds the cache file; 12 permission denied; 13 no answer from the server.";

void addCacheOptions(CLI::App& command, RecordOptions& options) {
    command.add_option("--cache", options.cacheFile, "File of the fingerprint cache [none]")
        ->type_name("FILE");
    command.add_option("--limit", options.limit, "Memory limit of the cache, MiB")
        ->check(CLI::Range(1U, 1U << 20))
        ->capture_default_str();
    command.add_flag("--wait", options.wait, "Wait while another process holds the cache file");
    command.add_flag("--rebind", options.rebind,
                     "Start anew with a cache of another server, data selection or segment size");
    command.add_flag("--force", options.force, "Read unchanged files, too");
}

}  // namespace

void addRecord(CLI::App& app, tool::ExitCode& code) {
    const auto kept = std::make_shared<RecordOptions>();
    RecordOptions& options = *kept;
    CLI::App* command = app.add_subcommand("record", kDescription);
    addWalkOptions(*command, options.walk, "record");
    tool::addSessionOptions(*command, options.session);
    addImageName(*command, options.name, false)->required();
    addCacheOptions(*command, options);
    addSegmentSize(*command, options.segmentSize);
    addDigest(*command, options.digest);
    addJobs(*command, options.jobs);
    command->add_option("--list", options.listSize, "Entries that are recorded at once")
        ->check(CLI::Range(1U, 100'000U))
        ->capture_default_str();
    command->add_option("--retention", options.retention, "Seconds to keep the image [not set]")
        ->check(tool::numberUpTo(INT64_MAX));
    command->add_flag("-n,--dry-run", options.dryRun,
                      "Tell what would be new, by folder, and change nothing");
    command->add_flag("--json", options.json, "Report as JSON");
    command->footer(kFooter);
    command->callback([kept, &code] { code = agent::record(*kept); });
}

}  // namespace agent
