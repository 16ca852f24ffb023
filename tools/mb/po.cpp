// po: lists of POs and queries.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <vector>

#include "platform/status.h"
#include "tools/mb/commands.h"
#include "tools/shared/json.h"
#include "tools/shared/text.h"

namespace pool {
namespace {

struct CloseCursor {
    void operator()(MBPOCursor* cursor) const { MBPOFindClose(cursor); }
};

/// The text of POs, from a file or standard input. Empty, with a complaint, when there is none.
std::string readList(const std::string& file) {
    std::string text;
    if (file.empty() || file == "-") {
        text.assign(std::istreambuf_iterator<char>(std::cin), {});
    } else {
        std::ifstream stream(file, std::ios::binary);
        if (!stream) {
            Session::complain(tool::printable(file), strerror(errno));
            return {};
        }
        text.assign(std::istreambuf_iterator<char>(stream), {});
    }
    const bool usable = !text.empty() && text.find('\0') == std::string::npos;
    if (!usable) {
        Session::complain(
            "", text.empty() ? "there are no POs to send" : "the POs have a NUL byte among them");
    }
    return usable ? text : "";
}

using ListCall = uint32_t (*)(MBSession*, uint32_t, const char*);

int sendList(const Options& options, ListCall call) {
    const std::string text = readList(options.source);
    if (text.empty()) return tool::kExitUsage;
    Session session(options.session);
    if (const int code = session.code()) return code;
    return session.attempt(
        "POs", [&](MBSession* mb) { return call(mb, options.dataselection, text.c_str()); });
}

std::vector<std::string> fieldsOf(std::string_view line) {
    std::vector<std::string> fields;
    for (;;) {
        const size_t end = line.find('|');
        fields.emplace_back(line.substr(0, end));
        if (end == std::string_view::npos) return fields;
        line.remove_prefix(end + 1);
    }
}

/// Objects with the names and types that the server gives.
nlohmann::ordered_json objectsOf(std::string_view text) {
    const auto takeLine = [&] {
        const size_t end = std::min(text.find('\n'), text.size());
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        return line;
    };
    const std::vector<std::string> names = fieldsOf(takeLine());
    const std::vector<std::string> types = fieldsOf(takeLine());
    takeLine();
    auto list = nlohmann::ordered_json::array();
    while (!text.empty()) {
        const std::vector<std::string> fields = fieldsOf(takeLine());
        nlohmann::ordered_json object;
        for (size_t i = 0; i < names.size() && i < fields.size(); ++i) {
            const bool number = i < types.size() && (types[i] == "int" || types[i] == "long");
            if (number) {
                object[names[i]] = strtoll(fields[i].c_str(), nullptr, 10);
            } else {
                object[names[i]] = fields[i];
            }
        }
        list.push_back(std::move(object));
    }
    return list;
}

int findAsJson(const Options& options, Session& session, const MBPOFilter& filter) {
    char* text = nullptr;
    const int code = session.attemptQuery(options.dataselection, [&](MBSession* mb) {
        return MBPOFind(mb, options.dataselection, &filter, &text, nullptr, nullptr);
    });
    const tool::LibraryText owned(text);
    if (code != tool::kExitOk) return code;
    tool::printJson(text != nullptr ? objectsOf(text) : nlohmann::ordered_json::array(), 2);
    return text != nullptr ? tool::kExitOk : tool::kExitNothing;
}

/// Prints the lines of a cursor. A server may announce more than it sends: the line then no longer
/// advances.
int printLines(MBPOCursor* cursor, char* line) {
    char* last = nullptr;
    uint32_t status = CR_STATUS_OK;
    for (; status == CR_STATUS_OK; status = MBPOStringFindNext(cursor, &line)) {
        if (line == last || *line == '\0') {
            Session::complain("query", "the server sent fewer POs than it announced");
            return tool::kExitFailed;
        }
        puts(line);
        last = line;
    }
    return tool::kExitOk;
}

int findAsLines(const Options& options, Session& session, const MBPOFilter& filter) {
    char* line = nullptr;
    uint32_t count = 0;
    std::unique_ptr<MBPOCursor, CloseCursor> cursor;
    const int code = session.attemptQuery(options.dataselection, [&](MBSession* mb) {
        cursor.reset(MBPOStringFindFirst(mb, options.dataselection, &filter, &line, &count));
        return cursor != nullptr ? uint32_t{CR_STATUS_OK} : *__cr_errno_location();
    });
    if (code != tool::kExitOk) return code;
    if (options.countOnly) printf("%u\n", count);
    if (cursor == nullptr) return tool::kExitNothing;
    return options.countOnly ? tool::kExitOk : printLines(cursor.get(), line);
}

}  // namespace

int addPOs(const Options& options) {
    return sendList(options, options.keep ? MBPOZELTAddList : MBPOAddList);
}

int importPOs(const Options& options) {
    return sendList(options, MBPOImport);
}

int expirePOs(const Options& options) {
    return sendList(options, MBPOExpire);
}

int findPOs(const Options& options) {
    MBPOFilter filter{};
    setFilter(filter, options.criteria);
    MBSetRetryCount(options.retries);
    Session session(options.session);
    if (const int code = session.code()) return code;
    return options.json && !options.countOnly ? findAsJson(options, session, filter)
                                              : findAsLines(options, session, filter);
}

}  // namespace pool
