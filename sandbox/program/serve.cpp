// kspool-sandbox serve
#include <unistd.h>

#include <cstdio>

#include "sandbox/program/program.h"
#include "sandbox/sandbox.h"
#include "sandbox/setup/files.h"

namespace sandbox::program {
namespace {

Settings settingsOf(const ServeOptions& options) {
    Settings settings;
    try {
        settings = readSetup(options.folder);
    } catch (const std::exception& error) {
        fail(std::string(error.what()) + " (" + kProgram + " init makes such a folder)");
    }
    if (!options.database.empty()) settings.database = options.database;
    if (options.port) settings.port = *options.port;
    if (!options.tlsFolder.empty()) settings.tlsFolder = options.tlsFolder;
    settings.tree = options.tree;
    settings.faults = faultsText(options.faults);
    settings.architectureMode = options.architectureMode;
    settings.sync = options.sync;
    return settings;
}

}  // namespace

void serve(const ServeOptions& options) {
    const Settings settings = settingsOf(options);
    const sigset_t ends = blockSignals({SIGTERM, SIGINT});
    signal(SIGPIPE, SIG_IGN);
    const Server server(settings);
    if (!server.warning().empty()) complain(server.warning());
    if (!options.portFile.empty())
        replaceFile(options.portFile, std::to_string(server.port()) + "\n", 0644);
    printf("READY url=%s pid=%ld\n", server.url().c_str(), static_cast<long>(getpid()));
    flush();
    int signalNumber = 0;
    sigwait(&ends, &signalNumber);
}

}  // namespace sandbox::program
