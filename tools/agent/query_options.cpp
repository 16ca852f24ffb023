#include <memory>

#include "tools/agent/expire.h"
#include "tools/agent/find.h"
#include "tools/agent/options.h"
#include "tools/shared/session_options.h"

namespace agent {

void addFind(CLI::App& app, tool::ExitCode& code) {
    const auto kept = std::make_shared<FindOptions>();
    CLI::App* command = app.add_subcommand("find", "List the files that are recorded");
    tool::addSessionOptions(*command, kept->session);
    addImageName(*command, kept->name, true);
    command->add_option("NAME", kept->pattern, "Pattern of file names [*]");
    command->add_flag("--json", kept->json, "Report as JSON");
    command->callback([kept, &code] { code = find(*kept); });
}

void addExpire(CLI::App& app, tool::ExitCode& code) {
    const auto kept = std::make_shared<ExpireOptions>();
    CLI::App* command = app.add_subcommand("expire", "Expire the files of an image, and the image");
    tool::addSessionOptions(*command, kept->session);
    addImageName(*command, kept->name, false)->required();
    command->add_flag("--json", kept->json, "Report as JSON");
    command->callback([kept, &code] { code = expire(*kept); });
}

}  // namespace agent
