// kspool-mb: the command line.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>
#include <memory>
#include <utility>

#include "tools/mb/commands.h"
#include "tools/shared/program.h"
#include "tools/shared/session_options.h"
#include "tools/shared/text.h"

namespace {

using mb::Options;

#define EXIT_CODES                                                                       \
    "Exit code: 0 ok; 1 error; 2 bad options, no usable configuration or server URL;\n"  \
    "10 nothing found; 12 permission denied; 13 no answer from the server. Of several\n" \
    "failures the highest."

constexpr char kFooter[] =
    "The options above may stand before and after the subcommand. The password comes from\n"
    "--password-file or $KSPOOL_PASSWORD.\n" EXIT_CODES;
constexpr char kCommandFooter[] = "Options of all subcommands: kspool-mb --help\n" EXIT_CODES;
#undef EXIT_CODES

CLI::Validator pathText() {
    return tool::textUpTo(SIZE_MAX);
}

/// A time or a duration, which servers keep as a signed number.
CLI::Validator seconds() {
    return tool::numberUpTo(INT64_MAX);
}

void addOptions(CLI::App& app, Options& options) {
    tool::addSessionOptions(app, options.session);
    app.add_flag("--json", options.json, "Report as JSON");
}

void addPaths(CLI::App& command, Options& options, int most) {
    command.add_option("PATH", options.paths, "Path on the server")
        ->required()
        ->expected(1, most)
        ->type_name("")
        ->check(pathText());
}

void addRecursive(CLI::App& command, Options& options) {
    command.add_flag("-R,--recursive", options.recursive, "Directories with their contents");
}

void addOnePath(CLI::App& command, Options& options) {
    addRecursive(command, options);
    addPaths(command, options, 1);
}

constexpr int kAnyNumber = 1 << 20;

void addPathsToDelete(CLI::App& command, Options& options) {
    addRecursive(command, options);
    addPaths(command, options, kAnyNumber);
}

void addNewPaths(CLI::App& command, Options& options) {
    addPaths(command, options, kAnyNumber);
}

void addSourceAndDestination(CLI::App& command, Options& options) {
    command.add_option("SOURCE", options.source, "Path on the server")
        ->required()
        ->type_name("")
        ->check(pathText());
    command.add_option("DESTINATION", options.destination, "The new path itself")
        ->required()
        ->type_name("")
        ->check(pathText());
}

void addCopyOptions(CLI::App& command, Options& options) {
    addRecursive(command, options);
    addSourceAndDestination(command, options);
}

void addCount(CLI::App& command, Options& options) {
    command.add_option("-c,--count", options.count, "Requests")
        ->check(CLI::Range(1U, 1'000'000U))
        ->capture_default_str();
}

void addNoOptions(CLI::App& /*command*/, Options& /*options*/) {}

void addSelection(CLI::App& command, Options& options) {
    command.add_option("DS", options.dataselection, "Number of the data selection")
        ->required()
        ->check(tool::numberUpTo(UINT32_MAX))
        ->type_name("");
}

void addListFile(CLI::App& command, Options& options) {
    addSelection(command, options);
    command.add_option("FILE", options.source, "Text of POs, one a line [standard input]")
        ->type_name("");
}

void addNewList(CLI::App& command, Options& options) {
    addListFile(command, options);
    command.add_flag("--keep", options.keep, "Keep POs that are there already");
}

void addCriteria(CLI::App& command, Options& options) {
    addSelection(command, options);
    for (size_t i = 0; i < mb::kCriteria; ++i) {
        const mb::Criterion& row = mb::kCriterionRows[i];
        command.add_option(std::string("--") + row.name, options.criteria[i])
            ->group("Fields (texts may have * and ?)")
            ->type_name("")
            ->check(CLI::Validator(
                [&row](std::string& value) {
                    return mb::criterionProblem(row, value).value_or("");
                },
                ""));
    }
    command.add_flag("--count", options.countOnly, "Print only the number of POs");
    command.add_option("--retries", options.retries, "Times to send a failed query again")
        ->check(CLI::Range(0, 100))
        ->capture_default_str();
}

void addClient(CLI::App& command, Options& options) {
    addSelection(command, options);
    command.add_option("--client", options.image.client, "Client")->type_name("");
    command.add_option("--policy", options.image.policy, "Policy")->type_name("");
}

void addImage(CLI::App& command, Options& options) {
    addClient(command, options);
    command.add_option("--image", options.image.name, "Name of the image")
        ->required()
        ->check(pathText())
        ->type_name("");
    command.add_option("--flags", options.image.flags, "Flags")->type_name("");
}

void addNewImage(CLI::App& command, Options& options) {
    addImage(command, options);
    command.add_option("--parent", options.image.parent, "Parent's number")->type_name("");
    command.add_option("--time", options.image.time, "Seconds since 1970 [now]")
        ->check(seconds())
        ->type_name("");
}

void addImageQuery(CLI::App& command, Options& options) {
    addClient(command, options);
    command.add_option("--parent", options.image.wantedParent, "Parent's number [any]")
        ->type_name("");
    command.add_option("--since", options.image.time, "Seconds since 1970 [any]")
        ->check(seconds())
        ->type_name("");
}

void addRetention(CLI::App& command, Options& options) {
    addImage(command, options);
    CLI::Option* set =
        command.add_option("--set", options.image.retention, "Seconds; without, it is shown")
            ->check(seconds())
            ->type_name("");
    command.add_option("--worm", options.image.worm, "WORM flags")->needs(set)->type_name("");
    command.get_option("--flags")->needs(set);
}

struct Command {
    const char* group;  ///< NULL: a command of its own
    const char* name;
    const char* description;
    tool::ExitCode (*run)(const Options&);
    void (*addOptions)(CLI::App&, Options&);
};

constexpr Command kCommands[] = {
    {nullptr, "ls", "List a directory or a file", mb::list, addOnePath},
    {nullptr, "mkdir", "Create directories", mb::makeDirectories, addNewPaths},
    {nullptr, "cp", "Copy a file, or with -R a directory", mb::copy, addCopyOptions},
    {nullptr, "mv", "Move a file or a directory", mb::move, addSourceAndDestination},
    {nullptr, "rm", "Delete files and empty directories, or with -R full ones", mb::remove,
     addPathsToDelete},
    {"po", "add", "Add POs, in place of those that are there", mb::addPOs, addNewList},
    {"po", "import", "Import POs, in place of those that are there", mb::importPOs, addListFile},
    {"po", "expire", "Expire the POs that a text names", mb::expirePOs, addListFile},
    {"po", "find", "Find POs by their fields", mb::findPOs, addCriteria},
    {"image", "set", "Record an image", mb::setImage, addNewImage},
    {"image", "last", "List the last images", mb::lastImages, addImageQuery},
    {"image", "delete", "Delete an image's record", mb::deleteImage, addImage},
    {"image", "retention", "Show or set how long an image is kept", mb::imageRetention,
     addRetention},
    {"image", "policy", "Show the policy of an image", mb::imagePolicy, addImage},
    {nullptr, "hvx", "Show the HVX tag of a data selection", mb::hvxTag, addSelection},
    {nullptr, "time", "Show the server's time", mb::time, addNoOptions},
    {nullptr, "ping", "Measure how long the server takes to answer", mb::ping, addCount},
};

constexpr std::pair<const char*, const char*> kGroups[] = {
    {"po", "POs: add, import, expire, find"},
    {"image", "Images: set, last, delete, retention, policy"},
};

/// The parent command of a group.
CLI::App* groupOf(CLI::App& app, const char* name, std::map<std::string, CLI::App*>& groups) {
    if (name == nullptr) return &app;
    if (const auto known = groups.find(name); known != groups.end()) return known->second;
    const auto* row = std::find_if(std::begin(kGroups), std::end(kGroups),
                                   [=](const auto& g) { return std::string(name) == g.first; });
    CLI::App* group = app.add_subcommand(name, row->second);
    group->require_subcommand(1);
    groups[name] = group;
    return group;
}

void addCommands(CLI::App& app, tool::ExitCode& code) {
    const auto options = std::make_shared<Options>();
    app.fallthrough();
    app.footer(kFooter);
    addOptions(app, *options);
    std::map<std::string, CLI::App*> groups;
    for (const Command& row : kCommands) {
        CLI::App* command =
            groupOf(app, row.group, groups)->add_subcommand(row.name, row.description);
        row.addOptions(*command, *options);
        command->footer(kCommandFooter);
        command->callback([run = row.run, options, &code] { code = run(*options); });
    }
}

}  // namespace

int main(int argc, char** argv) {
    return tool::runProgram({.name = "kspool-mb",
                             .description = "Client of a storage pool's Metabase server.",
                             .failed = tool::ExitCode::kFailed,
                             .addCommands = addCommands},
                            argc, argv);
}
