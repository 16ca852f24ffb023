// kspool-cache: the command line.
#include <CLI/CLI.hpp>
#include <cstdint>
#include <memory>

#include "tools/cache/commands.h"
#include "tools/shared/cache.h"
#include "tools/shared/program.h"

namespace {

using cache::Options;

constexpr char kAnswerFooter[] =
    "Exit code: 0 fine; 1 the file is damaged; 2 bad options, or it could not be done.";
constexpr char kDiffFooter[] =
    "Lines: '+ TYPE DIGEST VALUE' added, '- TYPE DIGEST VALUE' gone, '~ TYPE DIGEST OLD -> NEW'\n"
    "changed.\n"
    "Exit code: 0 no difference; 1 differences; 2 bad options, or it could not be done.";
constexpr char kShrinkFooter[] =
    "OUT may be FILE. OUT is replaced when the new file is complete, and untouched otherwise.\n"
    "Exit code: 0 saved; 2 bad options, a damaged FILE, or it could not be done.";

void addDumpOptions(CLI::App& command, Options& options) {
    CLI::Option* sorted =
        command.add_flag("--sorted", options.sorted, "Tree by tree, from the highest entry down");
    CLI::Option* raw =
        command.add_flag("--raw", options.raw, "All slots by page, and the free list");
    sorted->excludes(raw);
    for (CLI::Option* report : {sorted, raw})
        report->excludes(command.get_option("--json"));
}

void addShapeOptions(CLI::App& command, Options& options) {
    command
        .add_option("--bits", options.bits,
                    "Spread the entries over 2^BITS trees [from their number]")
        ->check(CLI::Range(1U, tool::kLargestBits));
}

void addShrinkOptions(CLI::App& command, Options& options) {
    command.add_option("--limit", options.limit, "MiB that the pages of a cache may take")
        ->required()
        ->check(CLI::Range(uint64_t{1}, uint64_t{UINT32_MAX}));
    command.add_option("-o,--output", options.out, "The file to write")->required();
    command
        .add_option("--area", options.areaSize, "Slots per page of that cache [from the entries]")
        ->check(CLI::Range(1U, tool::kLargestArea));
}

void addNoOptions(CLI::App& /*command*/, Options& /*options*/) {}

struct Command {
    const char* name;
    const char* description;
    const char* footer;
    int leastFiles;
    int mostFiles;
    tool::ExitCode (*run)(const Options&);
    void (*addOptions)(CLI::App&, Options&);
};

constexpr int kAnyNumber = 1 << 20;

constexpr Command kCommands[] = {
    {"stat", "Show what is in a cache file, and the memory and settings for it", kAnswerFooter, 1,
     1, cache::stat, addNoOptions},
    {"verify", "Check cache files; damage is named on stderr", kAnswerFooter, 1, kAnyNumber,
     cache::verify, addNoOptions},
    {"dump", "Load a file and list the slots of its cache, entries first, in the order of the file",
     kAnswerFooter, 1, 1, cache::dump, addDumpOptions},
    {"diff", "Show how the second file differs from the first", kDiffFooter, 2, 2, cache::diff,
     addNoOptions},
    {"shape", "Load a file and show how deep and how full the trees of its cache are",
     kAnswerFooter, 1, 1, cache::shape, addShapeOptions},
    {"shrink", "Drop the first entries, so that the others fit into a memory limit", kShrinkFooter,
     1, 1, cache::shrink, addShrinkOptions},
};

void addCommands(CLI::App& app, tool::ExitCode& code) {
    const auto options = std::make_shared<Options>();
    for (const Command& row : kCommands) {
        CLI::App* command = app.add_subcommand(row.name, row.description);
        command->add_option("FILE", options->files, "Cache file")
            ->required()
            ->expected(row.leastFiles, row.mostFiles);
        command->add_flag("--json", options->json, "Report as JSON");
        row.addOptions(*command, *options);
        command->footer(row.footer);
        command->callback([run = row.run, options, &code] { code = run(*options); });
    }
}

}  // namespace

int main(int argc, char** argv) {
    return tool::runProgram(
        {.name = "kspool-cache",
         .description = "Inspector of fingerprint cache files, as KSCacheSave() writes them.",
         .failed = tool::ExitCode::kTrouble,
         .addCommands = addCommands},
        argc, argv);
}
