#include "tools/shared/program.h"

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <new>
#include <string>
#include <system_error>
#include <vector>

#include "kspool_version.h"
#include "tools/shared/signals.h"
#include "tools/shared/text.h"

namespace tool {
namespace {

/// Opens /dev/null for each standard descriptor that is closed. Otherwise a file that is opened
/// later would get its number, and messages would be written into that file. Input is opened for
/// writing and output for reading, so that a report to a closed standard output still fails.
void occupyStandardDescriptors() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) >= 0 || errno != EBADF) continue;
        // open() returns fd, the lowest free descriptor.
        [[maybe_unused]] const int opened =
            open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    }
}

/// The parser would take a word like [a,b] for a list and split it. A mark in front keeps the word
/// whole until it is the value of an option or an operand.
constexpr char kMark = '\1';

std::vector<std::string> markedWords(int argc, char** argv) {
    std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
    for (std::string& word : words) {
        if (!word.empty() && (word.front() == '[' || word.front() == kMark))
            word.insert(0, 1, kMark);
    }
    return words;
}

void takeMarksOff(CLI::App& app) {
    const CLI::Validator off(
        [](std::string& word) {
            if (!word.empty() && word.front() == kMark) word.erase(0, 1);
            return std::string();
        },
        "");
    for (CLI::Option* option : app.get_options())
        option->transform(off);
    for (CLI::App* command : app.get_subcommands([](CLI::App*) { return true; }))
        takeMarksOff(*command);
}

ExitCode parseAndWork(const Program& program, int argc, char** argv) {
    const std::string name = program.name;
    CLI::App app(program.description, name);
    ExitCode code = ExitCode::kOk;
    app.set_version_flag("--version", name + " " + kspoolVersion());
    program.addCommands(app, code);
    app.require_subcommand(0, 1);
    takeMarksOff(app);
    std::vector<std::string> words = markedWords(argc, argv);
    std::reverse(words.begin(), words.end());  // the order that the parser takes a vector in
    try {
        app.parse(std::move(words));  // which calls the subcommand
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            app.exit(error);  // prints the help or the version
            return ExitCode::kOk;
        }
        std::string what = error.what();
        std::erase(what, kMark);
        throw Failure(ExitCode::kUsage, what + " (see " + name + " --help)");
    }
    if (!app.get_subcommands().empty()) return code;
    throw Failure(ExitCode::kUsage, "a subcommand is needed (see " + name + " --help)");
}

/// Checks standard output even after a failure, since part of the report may be lost as well.
ExitCode workAndReport(const Program& program, int argc, char** argv) {
    Steps steps;
    ExitCode code = ExitCode::kOk;
    steps.run([&] { code = parseAndWork(program, argc, argv); });
    if (!steps.allDone()) code = steps.code();
    if (fflush(stdout) == 0 && ferror(stdout) == 0) return code;
    throw Failure(program.failed, "the report could not be written");
}

}  // namespace

int runProgram(const Program& program, int argc, char** argv) noexcept {
    setlocale(LC_CTYPE, "");
    signal(SIGXFSZ, SIG_IGN);  // a limit of file sizes is then told as a failed write
    setProgram(program.name, program.failed);
    occupyStandardDescriptors();
    try {
        const ExitCode code = workAndReport(program, argc, argv);
        return code == ExitCode::kInterrupted ? Interrupts::endBySignal() : static_cast<int>(code);
    } catch (const std::bad_alloc&) {
        fprintf(stderr, "%s: not enough memory\n", program.name);  // complain() would need some
    } catch (const Failure& failure) {
        complain(failure.what());
    } catch (const std::filesystem::filesystem_error& error) {
        complain(printable(error.path1()) + ": " + error.code().message());
    } catch (const std::system_error& error) {
        complain(error.code().message());  // what() names functions of the C++ library
    } catch (const std::exception& error) {
        complain(std::string("internal error: ") + error.what());
    }
    return static_cast<int>(program.failed);
}

}  // namespace tool
