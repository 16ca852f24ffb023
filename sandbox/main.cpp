// kspool-sandbox: the command line. Every function that fails throws std::exception; only main()
// and the parser's result become exit codes.
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>

#include "sandbox/sandbox.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

constexpr char kProgram[] = "kspool-sandbox";

void complain(const std::string& text) {
    fprintf(stderr, "%s: %s\n", kProgram, text.c_str());
}

[[noreturn]] void fail(const std::string& text) {
    throw std::runtime_error(text);
}

struct ServeOptions {
    std::string folder;
    std::string database;
    std::optional<uint16_t> port;
    std::string portFile;
    std::string tlsFolder;
    std::string tree;
    uint32_t architectureMode = 1;
};

/// The file appears complete, by rename: a reader that waits for it never sees half a number.
void writePortFile(const std::string& path, uint16_t port) {
    const std::string temporary = path + ".new";
    FILE* file = fopen(temporary.c_str(), "we");
    if (file == nullptr) fail(path + ": " + strerror(errno));
    const bool written = fprintf(file, "%u\n", unsigned{port}) > 0;
    const bool closed = fclose(file) == 0;
    if (written && closed && rename(temporary.c_str(), path.c_str()) == 0) return;
    const std::string reason = strerror(errno);
    remove(temporary.c_str());
    fail(path + ": " + reason);
}

sandbox::Settings settingsOf(const ServeOptions& options) {
    sandbox::Settings settings;
    try {
        settings = sandbox::readSetup(options.folder);
    } catch (const std::exception& error) {
        fail(std::string(error.what()) + " (" + kProgram + " init makes such a folder)");
    }
    if (!options.database.empty()) settings.database = options.database;
    if (options.port) settings.port = *options.port;
    if (!options.tlsFolder.empty()) settings.tlsFolder = options.tlsFolder;
    settings.tree = options.tree;
    settings.architectureMode = options.architectureMode;
    return settings;
}

void serve(const ServeOptions& options) {
    const sandbox::Settings settings = settingsOf(options);
    // Blocked in every thread, so that a signal waits for sigwait() instead of ending the program
    // before the server's destructor has run.
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    sigprocmask(SIG_BLOCK, &ends, nullptr);
    signal(SIGPIPE, SIG_IGN);
    const sandbox::Server server(settings);
    if (!server.warning().empty()) complain(server.warning());
    if (!options.portFile.empty()) writePortFile(options.portFile, server.port());
    printf("READY url=%s pid=%ld\n", server.url().c_str(), static_cast<long>(getpid()));
    if (fflush(stdout) != 0) fail(std::string("standard output: ") + strerror(errno));
    int signalNumber = 0;
    sigwait(&ends, &signalNumber);
}

void init(const sandbox::Setup& setup) {
    sandbox::setUp(setup);
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
            folder, folder, folder, setup.url.c_str());
    } else {
        printf("  curl %s/__admin/health\n", setup.url.c_str());
    }
    if (fflush(stdout) != 0) fail("standard output could not be written");
}

void addServe(CLI::App& app, ServeOptions& options) {
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
    command->footer(
        "Prints READY url=URL pid=PID when it serves. SIGTERM and SIGINT end it.\n"
        "Exit code: 0 ended by a signal; 1 it could not serve; 2 bad options.");
    command->callback([&] { serve(options); });
}

void addInit(CLI::App& app, sandbox::Setup& setup) {
    CLI::App* command = app.add_subcommand("init", "Make a folder to serve");
    command->add_option("DIR", setup.folder, "The folder, which must not exist or be empty")
        ->required();
    command->add_option("--url", setup.url, "http://HOST[:PORT][/PATH], or https with --tls")
        ->required();
    command->add_flag("--tls", setup.tls, "Make keys and certificates for server and client");
    command->footer("Exit code: 0 made; 1 it could not be made; 2 bad options.");
    command->callback([&] { init(setup); });
}

int parseAndWork(int argc, char** argv) {
    CLI::App app("A pool server for development, on this machine only.", kProgram);
    app.set_version_flag("--version", std::string(kProgram) + " " KSPOOL_VERSION);
    ServeOptions options;
    sandbox::Setup setup;
    addServe(app, options);
    addInit(app, setup);
    app.require_subcommand(1);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) return app.exit(error);
        complain(std::string(error.what()) + " (see " + kProgram + " --help)");
        return kExitUsage;
    }
    return kExitOk;
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
