// kspool-sandbox: the command line.
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>

#include "sandbox/sandbox.h"

namespace {

enum ExitCode { kExitOk = 0, kExitFailed = 1, kExitUsage = 2 };

constexpr char kProgram[] = "kspool-sandbox";

int complain(const std::string& text, int code = kExitFailed) {
    fprintf(stderr, "%s: %s\n", kProgram, text.c_str());
    return code;
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

/// Complete or not there, so that whoever waits for it reads no half of it.
bool writePortFile(const std::string& path, uint16_t port) {
    const std::string temporary = path + ".new";
    FILE* file = fopen(temporary.c_str(), "we");
    if (file == nullptr) return false;
    const bool written = fprintf(file, "%u\n", unsigned{port}) > 0;
    const bool closed = fclose(file) == 0;
    if (written && closed && rename(temporary.c_str(), path.c_str()) == 0) return true;
    const int error = errno;
    remove(temporary.c_str());
    errno = error;
    return false;
}

int serve(const ServeOptions& options) {
    sandbox::Settings settings;
    std::string error;
    if (!sandbox::readSetup(options.folder, settings, error)) {
        return complain(error + " (" + kProgram + " init makes such a folder)");
    }
    if (!options.database.empty()) settings.database = options.database;
    if (options.port) settings.port = *options.port;
    if (!options.tlsFolder.empty()) settings.tlsFolder = options.tlsFolder;
    settings.tree = options.tree;
    settings.architectureMode = options.architectureMode;

    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    sigprocmask(SIG_BLOCK, &ends, nullptr);
    signal(SIGPIPE, SIG_IGN);
    const auto server = sandbox::Server::start(settings, error);
    if (server == nullptr) return complain(error);
    if (!server->warning().empty()) complain(server->warning());
    if (!options.portFile.empty() && !writePortFile(options.portFile, server->port()))
        return complain(options.portFile + ": " + strerror(errno));
    printf("READY url=%s pid=%ld\n", server->url().c_str(), static_cast<long>(getpid()));
    if (fflush(stdout) != 0) return complain(std::string("standard output: ") + strerror(errno));
    int signalNumber = 0;
    sigwait(&ends, &signalNumber);
    return kExitOk;
}

int init(const sandbox::Setup& setup) {
    std::string error;
    if (!sandbox::setUp(setup, error)) return complain(error);
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
    return fflush(stdout) == 0 ? kExitOk : complain("standard output could not be written");
}

void addServe(CLI::App& app, ServeOptions& options, int& code) {
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
    command->callback([&] { code = serve(options); });
}

void addInit(CLI::App& app, sandbox::Setup& setup, int& code) {
    CLI::App* command = app.add_subcommand("init", "Make a folder to serve");
    command->add_option("DIR", setup.folder, "The folder, which must not exist or be empty")
        ->required();
    command->add_option("--url", setup.url, "http://HOST[:PORT][/PATH], or https with --tls")
        ->required();
    command->add_flag("--tls", setup.tls, "Make keys and certificates for server and client");
    command->footer("Exit code: 0 made; 1 it could not be made; 2 bad options.");
    command->callback([&] { code = init(setup); });
}

int parseAndWork(int argc, char** argv) {
    CLI::App app("A pool server for development, on this machine only.", kProgram);
    app.set_version_flag("--version", std::string(kProgram) + " " KSPOOL_VERSION);
    ServeOptions options;
    sandbox::Setup setup;
    int code = kExitOk;
    addServe(app, options, code);
    addInit(app, setup, code);
    app.require_subcommand(1);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) return app.exit(error);
        return complain(std::string(error.what()) + " (see " + kProgram + " --help)", kExitUsage);
    }
    return code;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return parseAndWork(argc, argv);
    } catch (const std::exception& error) {
        return complain(error.what());
    }
}
