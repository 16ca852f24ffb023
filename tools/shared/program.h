// main() of every program.
#ifndef TOOLS_SHARED_PROGRAM_H
#define TOOLS_SHARED_PROGRAM_H

#include "tools/shared/failure.h"

namespace CLI {
class App;
}

namespace tool {

struct Program {
    const char* name;
    const char* description;
    ExitCode failed;  ///< the work could not be done, or its report could not be written
    /// Adds the subcommands, whose callbacks do the work and leave the exit code in `code`.
    void (*addCommands)(CLI::App& app, ExitCode& code);
};

/// Runs a program and returns its exit code: kUsage for bad options, with one line on stderr; the
/// code of a Failure, with its text on stderr; `failed` after any other exception, or if standard
/// output could not be written completely. After kInterrupted the program ends by the signal.
int runProgram(const Program& program, int argc, char** argv) noexcept;

}  // namespace tool

#endif
