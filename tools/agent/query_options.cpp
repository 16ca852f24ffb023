#include <memory>

#include "tools/agent/options.h"
#include "tools/agent/query.h"
#include "tools/shared/session_options.h"

namespace agent {
namespace {

template <typename Run>
void addQuery(CLI::App& app, tool::ExitCode& code, const char* name, const char* description,
              bool finds, Run run) {
    const auto kept = std::make_shared<QueryOptions>();
    CLI::App* command = app.add_subcommand(name, description);
    tool::addSessionOptions(*command, kept->session);
    CLI::Option* image = addImageName(*command, kept->name, finds);
    if (finds) {
        command->add_option("NAME", kept->pattern, "Pattern of file names [*]");
    } else {
        image->required();
    }
    command->add_flag("--json", kept->json, "Report as JSON");
    command->callback([kept, run, &code] { code = run(*kept); });
}

}  // namespace

void addFind(CLI::App& app, tool::ExitCode& code) {
    addQuery(app, code, "find", "List the files that are recorded", true, find);
}

void addExpire(CLI::App& app, tool::ExitCode& code) {
    addQuery(app, code, "expire", "Expire the files of an image, and the image", false, expire);
}

}  // namespace agent
