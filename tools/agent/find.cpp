#include "tools/agent/find.h"

#include <cstdio>
#include <nlohmann/json.hpp>
#include <unordered_set>

#include "tools/agent/query.h"
#include "tools/shared/json.h"
#include "tools/shared/text.h"

namespace agent {
namespace {

using tool::ExitCode;

bool isPath(const std::string& pattern) {
    return pattern.find('/') != std::string::npos || pattern == "." || pattern == "..";
}

/// The queries for a pattern. For a path without `*` and `?` they find no entry twice.
std::vector<Criteria> criteriaOf(const ImageName& name, const std::string& pattern, char type) {
    if (!isPath(pattern)) return {{.name = name, .file = pattern, .type = type}};
    const std::string path = absolutePath(pattern);
    if (path == "/") return {{.name = name, .folder = "/*", .type = type}};
    const PlaceOfPath place = placeOf(path);
    return {{.name = name, .folder = place.folder, .file = place.name, .type = type},
            {.name = name, .folder = path, .type = type},
            {.name = name, .folder = path + "/*", .type = type}};
}

nlohmann::ordered_json objectOf(const FoundPO& found) {
    const Record& r = found.record;
    nlohmann::ordered_json object{{"path", r.path},
                                  {"type", std::string(1, typeOf(r))},
                                  {"image", found.name.image},
                                  {"client", found.name.client},
                                  {"policy", found.name.policy},
                                  {"size", r.status.size},
                                  {"mtime", r.status.modified.tv_sec}};
    object["digest"] = r.digest.empty() ? nullptr : nlohmann::ordered_json(r.digest);
    if (r.status.isLink()) object["target"] = r.target;
    return object;
}

void printRow(const FoundPO& found) {
    const Record& r = found.record;
    const std::string size = r.status.isFile() ? tool::humanBytes(r.status.size) : "-";
    const std::string target = r.status.isLink() ? " -> " + tool::printable(r.target) : "";
    printf("%c %11s  %s  %s  %s%s\n", typeOf(r), size.c_str(),
           tool::localTime(r.status.modified.tv_sec).c_str(),
           tool::printable(found.name.image).c_str(), tool::printable(r.path).c_str(),
           target.c_str());
}

}  // namespace

ExitCode find(const FindOptions& options) {
    const char type = options.type.empty() ? '*' : options.type.front();
    std::vector<Criteria> queries;
    bool overlap = options.patterns.size() > 1;
    for (const std::string& pattern : options.patterns) {
        for (Criteria& one : criteriaOf(options.name, pattern, type))
            queries.push_back(std::move(one));
        overlap = overlap || pattern.find_first_of("*?") != std::string::npos;
    }
    if (queries.empty()) queries.push_back({.name = options.name, .type = type});
    overlap = overlap && queries.size() > 1;

    tool::Session session(options.session);
    auto list = nlohmann::ordered_json::array();
    std::unordered_set<std::string> seen;
    uint64_t count = 0;
    for (const Criteria& query : queries) {
        findPOs(session, query, [&](FoundPO&& found, std::string_view line) {
            if (overlap && !seen.emplace(line).second) return;
            ++count;
            if (options.pathsOnly) {
                fwrite(found.record.path.c_str(), 1, found.record.path.size() + 1, stdout);
            } else if (options.json) {
                list.push_back(objectOf(found));
            } else {
                printRow(found);
            }
        });
    }
    if (options.json) tool::printJson(list, 2);
    return count > 0 ? ExitCode::kOk : ExitCode::kNothing;
}

}  // namespace agent
