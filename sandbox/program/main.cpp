// kspool-sandbox: the command line. Every function that fails throws std::exception; only main()
// and the parser's result become exit codes.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>

#include "sandbox/program/program.h"
#include "sandbox/sandbox.h"

namespace {

using sandbox::program::complain;
using sandbox::program::kProgram;

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

constexpr char kNoSync[] = "--no-sync";
constexpr char kFaultsHelp[] =
    "A scenario's name (see the faults command), or a JSON file of faults";

void init(const sandbox::Setup& setup) {
    const std::string url = sandbox::setUp(setup);
    const char* folder = setup.folder.c_str();
    printf("%s: configuration agent.cfg, accounts agent (may do everything) and reader%s\n", folder,
           setup.tls ? ", keys for TLS" : "");
    printf("Passwords are in agent.password and reader.password.\n");
    printf("To go on:\n");
    printf("  kspool-sandbox serve '%s'\n", folder);
    if (setup.tls) {
        printf(
            "  curl --cacert '%s/tls/client/ca.pem' --cert '%s/tls/client/cert.pem' "
            "--key '%s/tls/client/key.pem' %s/__admin/health\n",
            folder, folder, folder, url.c_str());
    } else {
        printf("  curl %s/__admin/health\n", url.c_str());
    }
    sandbox::program::flush();
}

void addServe(CLI::App& app, sandbox::program::ServeOptions& options) {
    CLI::App* command = app.add_subcommand("serve", "Serve a folder that init made");
    command->add_option("DIR", options.folder, "The folder")->required();
    command->add_option("--db", options.database, "SQLite file of the pool [DIR/pool.db]");
    command->add_option("--port", options.port, "Port; 0: a free one [that of the URL]");
    command->add_option("--port-file", options.portFile, "File for the number of the port");
    command->add_option("--tls-dir", options.tlsFolder,
                        "Folder with ca.pem, cert.pem, key.pem [DIR/tls/server, with https]");
    command->add_option("--arch-mode", options.architectureMode,
                        "Architecture mode; 0: a legacy server [1]");
    command->add_option("--tree", options.tree,
                        "Put the names, sizes and times of a folder's files into the pool");
    command->add_option("--faults", options.faults, kFaultsHelp);
    command->add_flag_callback(
        kNoSync, [&] { options.sync = false; },
        "Do not wait for the disk: a power cut may undo changes");
    command->footer(
        "Prints READY url=URL pid=PID when it serves. SIGTERM and SIGINT end it.\n"
        "Exit code: 0 ended by a signal; 1 it could not serve; 2 bad options.");
    command->callback([&] { sandbox::program::serve(options); });
}

void addRun(CLI::App& app, sandbox::program::RunOptions& options, int& exitCode) {
    CLI::App* command = app.add_subcommand(
        "run", "Run a command beside a server of its own: run [OPTIONS] -- COMMAND [ARG...]");
    command->add_flag("--tls", options.tls, "Serve over TLS");
    command->add_option("--tree", options.tree,
                        "Put the names, sizes and times of a folder's files into the pool");
    command->add_option("--faults", options.faults, kFaultsHelp);
    command->footer(
        "The command gets KSPOOL_AGENT_CONFIG, KSPOOL_LOGIN, KSPOOL_PASSWORD and\n"
        "KSPOOL_SANDBOX_URL. The server and its temporary folder go when the command ends.\n"
        "Exit code: that of the command; 128 and the signal that ended it; 127 there is no such\n"
        "command; 126 it could not be started; 1 the server could not serve; 2 bad options.");
    command->callback([&] {
        if (options.command.empty()) throw CLI::RequiredError("-- COMMAND");
        exitCode = sandbox::program::run(options);
    });
}

void addFaults(CLI::App& app, sandbox::program::FaultOptions& options) {
    CLI::App* command =
        app.add_subcommand("faults", "List the scenarios of faults, print one, or order one");
    command->add_option("NAME", options.name, "A scenario");
    command->add_option("--url", options.url, "URL of a running server to order it of")
        ->needs(command->get_option("NAME"));
    command
        ->add_option("--keys", options.keys,
                     "Folder with ca.pem, cert.pem, key.pem of a client, with https")
        ->needs(command->get_option("--url"));
    command->footer("Exit code: 0 done; 1 it could not be done; 2 bad options.");
    command->callback([&] { sandbox::program::faults(options); });
}

void addInit(CLI::App& app, sandbox::Setup& setup) {
    CLI::App* command = app.add_subcommand("init", "Make a folder to serve");
    command->add_option("DIR", setup.folder, "The folder, which must not exist or be empty")
        ->required();
    command->add_option("--url", setup.url, "http://HOST[:PORT][/PATH], or https with --tls")
        ->required();
    command->add_flag("--tls", setup.tls, "Make keys and certificates for server and client");
    command->add_flag_callback(
        kNoSync, [&] { setup.sync = false; }, "Do not wait for the disk: a power cut may undo it");
    command->footer("Exit code: 0 made; 1 it could not be made; 2 bad options.");
    command->callback([&] { init(setup); });
}

int parseAndWork(int argc, char** argv) {
    CLI::App app("A pool server for development, on this machine only.", kProgram);
    app.set_version_flag("--version", std::string(kProgram) + " " KSPOOL_VERSION);
    sandbox::program::ServeOptions serving;
    sandbox::program::RunOptions running;
    sandbox::program::FaultOptions ordering;
    sandbox::Setup setup;
    int exitCode = kExitOk;
    addServe(app, serving);
    addRun(app, running, exitCode);
    addInit(app, setup);
    addFaults(app, ordering);
    app.require_subcommand(1);
    // Arguments after "--" belong to the command and bypass the parser, which would split a word
    // such as [1,2] at its commas.
    char** const end = std::find(argv + 1, argv + argc, std::string_view("--"));
    if (end != argv + argc) running.command.assign(end + 1, argv + argc);
    try {
        app.parse(static_cast<int>(end - argv), argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            app.exit(error);  // prints the help or the version
            sandbox::program::flush();
            return kExitOk;
        }
        complain(std::string(error.what()) + " (see " + kProgram + " --help)");
        return kExitUsage;
    }
    return exitCode;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return parseAndWork(argc, argv);
    } catch (const std::exception& error) {
        complain(error.what());
        return kExitFailed;
    }
}
