#include "tools/shared/program.h"

#include <CLI/CLI.hpp>
#include <clocale>
#include <cstdio>
#include <new>

#include "kspool_version.h"
#include "tools/shared/text.h"

namespace tool {
namespace {

int parseAndWork(const Program& program, int argc, char** argv) {
    CLI::App app(program.description, program.name);
    int code = kExitOk;
    app.set_version_flag("--version", std::string(program.name) + " " + kspoolVersion());
    program.addCommands(app, code);
    app.require_subcommand(0, 1);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) return app.exit(error);
        const std::string name = program.name;
        complain(name, std::string(error.what()) + " (see " + name + " --help)");
        return kExitUsage;
    }
    if (!app.get_subcommands().empty()) return code;
    complain(program.name, std::string("a subcommand is needed (see ") + program.name + " --help)");
    return kExitUsage;
}

}  // namespace

int runProgram(const Program& program, int argc, char** argv) noexcept {
    setlocale(LC_CTYPE, "");
    try {
        const int code = parseAndWork(program, argc, argv);
        if (fflush(stdout) == 0 && ferror(stdout) == 0) return code;
        complain(program.name, "the report could not be written");
    } catch (const std::bad_alloc&) {
        fprintf(stderr, "%s: not enough memory\n", program.name);  // which needs none
    } catch (const std::exception& error) {
        complain(program.name, error.what());
    }
    return program.failed;
}

}  // namespace tool
