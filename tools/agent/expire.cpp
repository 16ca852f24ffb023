#include "tools/agent/expire.h"

#include <cstdio>

#include "tools/agent/query.h"
#include "tools/shared/json.h"
#include "tools/shared/text.h"

namespace agent {

using tool::ExitCode;

ExitCode expire(const ExpireOptions& options) {
    tool::Session session(options.session);
    std::string lines;
    const uint64_t count = findImage(session, options.name, [&](FoundPO&&, std::string_view line) {
        lines.append(line).append("\n");
    });
    const bool recorded = deleteImage(session, options.name);
    expirePOs(session, options.name.dataselection, lines);
    if (options.json) {
        tool::printJson({{"expired", count}}, 2);
    } else {
        printf("%s files expired\n", tool::humanCount(count).c_str());
    }
    return recorded || count > 0 ? ExitCode::kOk : ExitCode::kNothing;
}

}  // namespace agent
