// kspool-agent find and expire: what the server knows of a client's files.
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>

#include "tools/agent/backup.h"
#include "tools/agent/record.h"
#include "tools/shared/json.h"
#include "tools/shared/text.h"

namespace agent {
namespace {

/// A filter and the texts that it points to.
struct Filter {
    MBPOFilter criteria{};
    std::string client, policy, image, name;

    explicit Filter(const ImageName& n, const std::string& pattern)
        : client(n.client),
          policy(n.policy),
          image(n.image.empty() ? "*" : n.image),
          name(fieldText(pattern)) {
        criteria.size = sizeof criteria;
        MBPOFilterInit(&criteria);
        criteria.criterion6 = client.c_str();
        criteria.criterion7 = policy.c_str();
        criteria.criterion8 = image.c_str();
        criteria.criterion10 = name.c_str();
    }
};

/// The whole answer to a query, empty when nothing was found.
int query(pool::Session& session, const ImageName& name, const std::string& pattern,
          std::string& answer, uint32_t& count) {
    const Filter filter(name, pattern);
    char* text = nullptr;
    count = 0;
    MBSetRetryCount(0);
    const int code = session.attemptQuery(name.dataselection, [&](MBSession* s) {
        return MBPOFind(s, name.dataselection, &filter.criteria, &text, nullptr, &count);
    });
    const tool::LibraryText owned(text);
    answer = text != nullptr ? text : "";
    return code;
}

/// Where the POs of an answer begin: behind its three lines.
size_t firstPO(const std::string& answer) {
    size_t at = 0;
    for (int line = 0; line < 3 && at != std::string::npos; ++line)
        at = answer.find('\n', at) + 1;
    return at;
}

template <typename Visit>
void eachPO(const std::string& answer, Visit visit) {
    for (size_t at = firstPO(answer); at < answer.size();) {
        const size_t end = std::min(answer.find('\n', at), answer.size());
        visit(fieldsOf(answer.substr(at, end - at)));
        at = end + 1;
    }
}

struct Row {
    std::string path, image;
    uint64_t size;
    int64_t mtime;
};

Row rowOf(const std::vector<std::string>& fields) {
    const auto field = [&](uint32_t number) {
        return fields.size() >= number ? fields[number - 1] : std::string();
    };
    const std::string folder = plainText(field(kFolderField));
    return {(folder == "/" ? "" : folder) + "/" + plainText(field(kNameField)),
            plainText(field(kImageField)), strtoull(field(kSizeField).c_str(), nullptr, 10),
            strtoll(field(kMtimeField).c_str(), nullptr, 10)};
}

void printRows(const QueryOptions& options, const std::string& answer) {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    eachPO(answer, [&](const std::vector<std::string>& fields) {
        const Row row = rowOf(fields);
        if (options.json) {
            list.push_back({{"path", row.path},
                            {"image", row.image},
                            {"size", row.size},
                            {"mtime", row.mtime}});
        } else {
            printf("%11s  %s  %s  %s\n", tool::humanBytes(static_cast<double>(row.size)).c_str(),
                   tool::localTime(row.mtime).c_str(), tool::printable(row.image).c_str(),
                   tool::printable(row.path).c_str());
        }
    });
    if (options.json) tool::printJson(list, 2);
}

}  // namespace

std::string thisHost() {
    char name[256] = "";
    return gethostname(name, sizeof name - 1) == 0 && *name != '\0' ? name : "localhost";
}

int countFiles(const ImageName& name, pool::Session& session, uint64_t& count) {
    std::string answer;
    uint32_t found = 0;
    const int code = query(session, name, "*", answer, found);
    count = found;
    return code;
}

int find(const QueryOptions& options) {
    pool::Session session(options.session);
    if (session.code() != tool::kExitOk) return session.code();
    std::string answer;
    uint32_t count = 0;
    const int code = query(session, options.name, options.pattern, answer, count);
    if (code != tool::kExitOk) return code;
    printRows(options, answer);
    return count > 0 ? tool::kExitOk : tool::kExitNothing;
}

int expire(const QueryOptions& options) {
    const ImageName& n = options.name;
    pool::Session session(options.session);
    if (session.code() != tool::kExitOk) return session.code();
    std::string answer;
    uint32_t count = 0;
    int code = query(session, n, "*", answer, count);
    if (code == tool::kExitOk && count > 0) {
        code = session.attempt("expire", [&](MBSession* s) {
            return MBPOExpire(s, n.dataselection, answer.c_str() + firstPO(answer));
        });
    }
    if (code != tool::kExitOk) return code;
    code = session.attemptEvent("image " + n.image, [&](MBSession* s) {
        return MBDeleteImage(s, n.dataselection, n.client.c_str(), n.policy.c_str(),
                             n.image.c_str(), 0);
    });
    if (options.json) {
        tool::printJson({{"expired", count}}, 2);
    } else {
        printf("%s files expired\n", tool::humanCount(count).c_str());
    }
    return code;
}

}  // namespace agent
