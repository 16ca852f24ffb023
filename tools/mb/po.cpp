// po: lists of POs and queries.
#include <algorithm>
#include <cstdio>
#include <memory>
#include <string_view>
#include <vector>

#include "common/owned.h"
#include "platform/status.h"
#include "tools/mb/commands.h"
#include "tools/shared/input.h"
#include "tools/shared/json.h"
#include "tools/shared/text.h"

namespace mb {
namespace {

using nlohmann::ordered_json;
using tool::Failure;
using tool::Session;

constexpr char kFewer[] = "query: the server sent fewer POs than it announced";

struct CloseCursor {
    void operator()(MBPOCursor* cursor) const { MBPOFindClose(cursor); }
};

/// The text of POs, from a file or standard input.
std::string readList(const std::string& file) {
    std::string text = tool::readInput(file);
    if (text.empty()) throw Failure(ExitCode::kUsage, "there are no POs to send");
    // The library takes a C string, and would send only the part before the NUL.
    if (text.find('\0') != std::string::npos) {
        throw Failure(ExitCode::kUsage, "the POs have a NUL byte among them");
    }
    return text;
}

using ListCall = uint32_t (*)(MBSession*, uint32_t, const char*);

ExitCode sendList(const Options& options, ListCall call) {
    const std::string text = readList(options.source);
    Session session(options.session);
    session.attempt("POs",
                    [&](MBSession* s) { return call(s, options.dataselection, text.c_str()); });
    return ExitCode::kOk;
}

/// The POs of an answer as objects, at most `count`. The first two lines of the answer are the
/// names and the types of the fields, the third is the number of POs.
ordered_json objectsOf(std::string_view text, uint32_t count) {
    const auto takeLine = [&] {
        const size_t end = std::min(text.find('\n'), text.size());
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        return line;
    };
    const std::vector<std::string> names = tool::fieldsOf(takeLine());
    const std::vector<std::string> types = tool::fieldsOf(takeLine());
    takeLine();
    auto list = ordered_json::array();
    while (!text.empty() && list.size() < count) {
        const std::string_view line = takeLine();
        if (line.empty()) break;
        const std::vector<std::string> fields = tool::fieldsOf(line);
        ordered_json object;
        for (size_t i = 0; i < names.size() && i < fields.size(); ++i) {
            const bool number = i < types.size() && (types[i] == "int" || types[i] == "long");
            object[names[i]] = number ? tool::numberOrText(fields[i]) : ordered_json(fields[i]);
        }
        list.push_back(std::move(object));
    }
    return list;
}

ExitCode findAsJson(const Options& options, Session& session, const MBPOFilter& filter) {
    kspool::OwnedText text;
    uint32_t count = 0;
    session.attemptQuery(options.dataselection, [&](MBSession* s) {
        char* answer = nullptr;
        const uint32_t status =
            MBPOFind(s, options.dataselection, &filter, &answer, nullptr, &count);
        text.reset(answer);
        return status;
    });
    if (options.countOnly) {
        tool::printJson({{"count", count}}, 2);
    } else {
        const ordered_json list = objectsOf(text != nullptr ? text.get() : "", count);
        tool::printJson(list, 2);
        if (list.size() < count) throw Failure(kFewer);
    }
    return count > 0 ? ExitCode::kOk : ExitCode::kNothing;
}

/// Prints the lines of a cursor. If the server announces more POs than it sends, the cursor stays
/// on the last line or on the empty text after it, which is a failure.
void printLines(MBPOCursor* cursor, char* line) {
    char* last = nullptr;
    uint32_t status = CR_STATUS_OK;
    for (; status == CR_STATUS_OK; status = MBPOStringFindNext(cursor, &line)) {
        if (line == last || *line == '\0') {
            throw Failure(kFewer);
        }
        puts(line);
        last = line;
    }
}

ExitCode findAsLines(const Options& options, Session& session, const MBPOFilter& filter) {
    char* line = nullptr;
    uint32_t count = 0;
    std::unique_ptr<MBPOCursor, CloseCursor> cursor;
    session.attemptQuery(options.dataselection, [&](MBSession* s) {
        cursor.reset(MBPOStringFindFirst(s, options.dataselection, &filter, &line, &count));
        return cursor != nullptr ? uint32_t{CR_STATUS_OK} : *__cr_errno_location();
    });
    if (options.countOnly) printf("%u\n", count);
    if (cursor == nullptr) return ExitCode::kNothing;
    if (!options.countOnly) printLines(cursor.get(), line);
    return ExitCode::kOk;
}

}  // namespace

ExitCode addPOs(const Options& options) {
    return sendList(options, options.keep ? MBPOZELTAddList : MBPOAddList);
}

ExitCode importPOs(const Options& options) {
    return sendList(options, MBPOImport);
}

ExitCode expirePOs(const Options& options) {
    return sendList(options, MBPOExpire);
}

ExitCode findPOs(const Options& options) {
    MBPOFilter filter{};
    setFilter(filter, options.criteria);
    MBSetRetryCount(options.retries);
    Session session(options.session);
    return (options.json ? findAsJson : findAsLines)(options, session, filter);
}

}  // namespace mb
