#include "tools/agent/find.h"

#include <nlohmann/json.hpp>

#include "tools/agent/query.h"
#include "tools/shared/json.h"
#include "tools/shared/text.h"

namespace agent {

using tool::ExitCode;

ExitCode find(const FindOptions& options) {
    tool::Session session(options.session);
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    const Criteria criteria{.name = options.name, .file = options.pattern};
    const uint64_t count = findPOs(session, criteria, [&](FoundPO&& found, std::string_view) {
        const Record& row = found.record;
        if (options.json) {
            list.push_back({{"path", row.path},
                            {"image", found.name.image},
                            {"size", row.status.size},
                            {"mtime", row.status.modified.tv_sec}});
        } else {
            printf("%11s  %s  %s  %s\n",
                   tool::humanBytes(static_cast<double>(row.status.size)).c_str(),
                   tool::localTime(row.status.modified.tv_sec).c_str(),
                   tool::printable(found.name.image).c_str(), tool::printable(row.path).c_str());
        }
    });
    if (options.json) tool::printJson(list, 2);
    return count > 0 ? ExitCode::kOk : ExitCode::kNothing;
}

}  // namespace agent
