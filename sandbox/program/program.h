// What the subcommands of kspool-sandbox share. Every function that fails throws std::exception.
#ifndef SANDBOX_PROGRAM_PROGRAM_H
#define SANDBOX_PROGRAM_PROGRAM_H

#include <csignal>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

namespace sandbox::program {

constexpr char kProgram[] = "kspool-sandbox";

struct ServeOptions {
    std::string folder;
    std::string database;
    std::optional<uint16_t> port;
    std::string portFile;
    std::string tlsFolder;
    std::string tree;
    std::string faults;
    uint32_t architectureMode = 1;
    bool sync = true;
};

struct RunOptions {
    bool tls = false;
    std::string tree;
    std::string faults;
    std::vector<std::string> command;
};

struct FaultOptions {
    std::string name;  ///< of a scenario; empty: list them
    std::string url;   ///< of a server to order it of; empty: print it
    std::string keys;  ///< folder with ca.pem, cert.pem and key.pem for https
};

/// Serves until a signal ends it.
void serve(const ServeOptions& options);
/// Runs a command beside a server of its own; returns the exit code.
int run(const RunOptions& options);
/// Lists the scenarios, prints one, or orders one on a running server.
void faults(const FaultOptions& options);

/// A message on standard error, on one line.
void complain(const std::string& text);
[[noreturn]] void fail(const std::string& text);
/// The text of a faults option, which names a scenario or a file. Empty for an empty option.
std::string faultsText(const std::string& nameOrFile);
/// Blocks signals in this thread and in all threads that it starts later. The signals stay pending
/// for sigwait() instead of ending the program before the server's destructor has run.
sigset_t blockSignals(std::initializer_list<int> numbers);
/// Flushes standard output. Throws if that fails.
void flush();

}  // namespace sandbox::program

#endif
