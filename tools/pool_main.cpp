// kspool-mb: the command line.
#include <CLI/CLI.hpp>
#include <memory>

#include "tools/pool_commands.h"
#include "tools/tool_main.h"
#include "tools/tool_text.h"

namespace {

using pool::Options;

constexpr size_t kLongestLogin = 255;
constexpr size_t kLongestUrl = 1023;
constexpr size_t kLongestPath = 4095;

#define EXIT_CODES                                                                         \
    "Exit code: 0 ok; 1 error; 2 bad options, no configuration or no server; 10 no such\n" \
    "file or directory; 12 permission denied; 13 no answer from the server. Of several\n"  \
    "failures the highest."

constexpr char kFooter[] =
    "The options above may stand before and after the subcommand. The password comes from\n"
    "--password-file or $KSPOOL_PASSWORD.\n" EXIT_CODES;
constexpr char kCommandFooter[] = "Options of all subcommands: kspool-mb --help\n" EXIT_CODES;
#undef EXIT_CODES

/// Text that an unset variable of a script did not leave empty, and that the library takes.
CLI::Validator textUpTo(size_t longest) {
    return {[longest](std::string& text) -> std::string {
                if (text.empty()) return "may not be empty";
                if (text.size() <= longest) return {};
                return "may have up to " + std::to_string(longest) + " characters";
            },
            ""};
}

CLI::Validator pathText() {
    return textUpTo(SIZE_MAX);
}

void addSessionOptions(CLI::App& app, Options& options) {
    pool::SessionOptions& session = options.session;
    app.add_option("--config", session.config,
                   "Agent configuration [$KSPOOL_AGENT_CONFIG, "
                   "$XDG_CONFIG_HOME/kspool/agent.cfg, /etc/kspool/agent.cfg]")
        ->type_name("FILE")
        ->check(textUpTo(kLongestPath));
    app.add_option("--server", session.server, "Metabase server [the configuration's]")
        ->type_name("URL")
        ->check(textUpTo(kLongestUrl));
    app.add_option("--login", session.login, "Login")
        ->type_name("NAME")
        ->envname("KSPOOL_LOGIN")
        ->check(textUpTo(kLongestLogin));
    app.add_option("--password-file", session.passwordFile,
                   "File whose first line is the password; - for standard input")
        ->type_name("FILE")
        ->check(textUpTo(kLongestPath));
    app.add_option("--retry", session.retry, "Try again so long to reach the server [0]")
        ->type_name("SECONDS")
        ->check(CLI::Range(0, 3600));
    app.add_flag("--json", options.json, "Report as JSON (ls, time, ping)");
    CLI::Option* quiet =
        app.add_flag("-q,--quiet", session.quiet, "No notes, and of ping the summary only");
    app.add_flag("-v,--verbose", session.verbose,
                 "Show the library's messages and traces on stderr")
        ->excludes(quiet);
}

void addPaths(CLI::App& command, Options& options, int most) {
    command.add_option("PATH", options.paths, "Path on the server")
        ->required()
        ->expected(1, most)
        ->type_name("")
        ->check(pathText());
}

void addRecursive(CLI::App& command, Options& options) {
    command.add_flag("-R,--recursive", options.recursive, "With what is in directories");
}

void addOnePath(CLI::App& command, Options& options) {
    addRecursive(command, options);
    addPaths(command, options, 1);
}

constexpr int kAnyNumber = 1 << 20;

void addDoomedPaths(CLI::App& command, Options& options) {
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

struct Command {
    const char* name;
    const char* description;
    int (*run)(const Options&);
    void (*addOptions)(CLI::App&, Options&);
};

constexpr Command kCommands[] = {
    {"ls", "List a directory or a file", pool::list, addOnePath},
    {"mkdir", "Create directories", pool::makeDirectories, addNewPaths},
    {"cp", "Copy a file, or with -R a directory", pool::copy, addCopyOptions},
    {"mv", "Move a file or a directory", pool::move, addSourceAndDestination},
    {"rm", "Delete files and empty directories, or with -R full ones", pool::remove,
     addDoomedPaths},
    {"time", "Show the server's time", pool::time, addNoOptions},
    {"ping", "Measure how long the server takes to answer", pool::ping, addCount},
};

void addCommands(CLI::App& app, int& code) {
    const auto options = std::make_shared<Options>();
    app.fallthrough();
    app.footer(kFooter);
    addSessionOptions(app, *options);
    for (const Command& row : kCommands) {
        CLI::App* command = app.add_subcommand(row.name, row.description);
        row.addOptions(*command, *options);
        command->footer(kCommandFooter);
        command->callback([run = row.run, options, &code] { code = run(*options); });
    }
}

}  // namespace

int main(int argc, char** argv) {
    return tool::runProgram({.name = pool::kProgram,
                             .description = "Client of a storage pool's Metabase server.",
                             .failed = tool::kExitFailed,
                             .addCommands = addCommands},
                            argc, argv);
}
