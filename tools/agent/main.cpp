// kspool-agent: the commands.
#include "tools/agent/options.h"
#include "tools/shared/program.h"

namespace {

void addCommands(CLI::App& app, tool::ExitCode& code) {
    agent::addScan(app, code);
    agent::addRecord(app, code);
    agent::addVerify(app, code);
    agent::addImages(app, code);
    agent::addFind(app, code);
    agent::addExpire(app, code);
}

}  // namespace

int main(int argc, char** argv) {
    return tool::runProgram(
        {.name = "kspool-agent",
         .description = "Agent of a storage pool that knows data by its fingerprints.",
         .failed = tool::ExitCode::kFailed,
         .addCommands = addCommands},
        argc, argv);
}
