#include "tools/agent/query.h"

#include <algorithm>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "common/owned.h"
#include "tools/agent/po.h"
#include "tools/shared/json.h"
#include "tools/shared/text.h"

namespace agent {
namespace {

using tool::ExitCode;

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

struct Answer {
    std::string text;  ///< empty when nothing was found
    uint32_t count = 0;
};

Answer query(tool::Session& session, const ImageName& name, const std::string& pattern) {
    const Filter filter(name, pattern);
    Answer answer;
    kspool::OwnedText text;
    MBSetRetryCount(0);
    session.attemptQuery(name.dataselection, [&](MBSession* s) {
        char* received = nullptr;
        const uint32_t status =
            MBPOFind(s, name.dataselection, &filter.criteria, &received, nullptr, &answer.count);
        text.reset(received);
        return status;
    });
    if (text != nullptr) answer.text = text.get();
    return answer;
}

/// The offset of the POs in an answer, which begins with three lines: names, types, number.
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
        visit(readPO(std::string_view(answer).substr(at, end - at)));
        at = end + 1;
    }
}

void printRows(const QueryOptions& options, const std::string& answer) {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    eachPO(answer, [&](const FoundPO& found) {
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
}

}  // namespace

uint64_t countFiles(const ImageName& name, tool::Session& session) {
    return query(session, name, "*").count;
}

ExitCode find(const QueryOptions& options) {
    tool::Session session(options.session);
    const Answer answer = query(session, options.name, options.pattern);
    printRows(options, answer.text);
    return answer.count > 0 ? ExitCode::kOk : ExitCode::kNothing;
}

ExitCode expire(const QueryOptions& options) {
    const ImageName& n = options.name;
    tool::Session session(options.session);
    const Answer answer = query(session, n, "*");
    if (answer.count > 0) {
        session.attempt("expire", [&](MBSession* s) {
            return MBPOExpire(s, n.dataselection, answer.text.c_str() + firstPO(answer.text));
        });
    }
    // The files are expired whether or not their image has a record.
    tool::Steps steps;
    steps.run([&] {
        session.attemptEvent("image " + n.image, [&](MBSession* s) {
            return MBDeleteImage(s, n.dataselection, n.client.c_str(), n.policy.c_str(),
                                 n.image.c_str(), 0);
        });
    });
    if (options.json) {
        tool::printJson({{"expired", answer.count}}, 2);
    } else {
        printf("%s files expired\n", tool::humanCount(answer.count).c_str());
    }
    return steps.code();
}

}  // namespace agent
