// What is alike in main() of all programs.
#ifndef TOOLS_SHARED_PROGRAM_H
#define TOOLS_SHARED_PROGRAM_H

namespace CLI {
class App;
}

namespace tool {

struct Program {
    const char* name;
    const char* description;
    int failed;  ///< exit code when the work, or its report, could not be done
    /// Adds the subcommands, whose callbacks do the work and leave the exit code in `code`.
    void (*addCommands)(CLI::App& app, int& code);
};

/// Runs a program and returns its exit code: kExitUsage for bad options, with one line on stderr;
/// `failed` after an exception, or when not all of standard output could be written.
int runProgram(const Program& program, int argc, char** argv) noexcept;

}  // namespace tool

#endif
