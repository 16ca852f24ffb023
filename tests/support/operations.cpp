#include "tests/support/operations.h"

#include <fstream>
#include <set>

#include "platform/status.h"

namespace operations {

Words::Words(const std::string& line) {
    std::istringstream stream(line);
    for (std::string word; stream >> word;)
        push_back(word);
}

Text::Text(const std::string& word) : isNull(word == "null") {
    if (!word.empty() && word[0] == '=') {
        text = word.substr(1);
    } else if (word.size() > 2 && word[1] == '*') {
        text.assign(number(word.substr(2)), word[0]);
    } else if (word != "empty") {
        for (const char c : word)
            text += c == '_' ? ' ' : c == '~' ? '\n' : c == '^' ? '\r' : c;
    }
}

uint64_t number(const std::string& word) {
    if (word.empty()) return 0;
    return word[0] == '-' ? static_cast<uint64_t>(std::stoll(word)) : std::stoull(word);
}

std::string quoted(const char* text) {
    if (text == nullptr) return "NULL";
    constexpr size_t kLongest = 1000;
    std::string out = "\"";
    const size_t length = strlen(text);
    for (size_t i = 0; i < (length > kLongest ? 5 : length); ++i)
        text[i] == '\n' ? out += "\\n" : out += text[i];
    return out + (length > kLongest ? "...\" of " + std::to_string(length) : "\"");
}

std::string withSlot(const std::string& result) {
    return result + ", slot " + std::to_string(*__cr_errno_location());
}

bool isText(uint32_t code) {
    static const std::set<uint32_t> kTexts = {129, 130, 132, 134, 137, 138};
    return kTexts.count(code) != 0;
}

Options::Options(const std::string& word) {
    texts_.reserve(word.size());  // whose texts must not move
    std::istringstream stream(word == "null" ? "" : word);
    for (std::string pair; std::getline(stream, pair, ',');) {
        const size_t equals = pair.find('=');
        const size_t cross = pair.find('#');
        KSOption option{static_cast<uint32_t>(number(pair.substr(0, equals))), {}};
        const std::string value = pair.substr(equals + 1, cross - equals - 1);
        if (isText(option.code)) {
            option.value.text = texts_.emplace_back(value).get();
        } else {
            option.value.number = number(value);
        }
        const uint64_t times = cross == std::string::npos ? 1 : number(pair.substr(cross + 1));
        records.insert(records.end(), times, option);
    }
}

std::vector<std::pair<const char*, std::span<const char>>> textsOf(const KSConfig& config) {
    return {{"vendor", config.vendorName},
            {"label", config.programLabel},
            {"application", config.applicationName},
            {"login", config.login},
            {"password", config.password},
            {"spa", config.spaUrl},
            {"mbs", config.mbsUrl},
            {"file", config.configFile},
            {"recommended", config.recommendedRouteTable},
            {"current", config.currentRouteTable},
            {"key", config.sslKeyLocation}};
}

Objects::Objects() {
    filter.size = sizeof filter;
    MBPOFilterInit(&filter);
}

Objects::~Objects() {
    MBPOFindClose(cursor);
    POReset(&po);
    MBShutdown(session);
}

std::string made(Objects& objects, const std::string& what, bool exists) {
    objects.status = exists ? uint32_t{CR_STATUS_OK} : *__cr_errno_location();
    return withSlot(exists ? what : "none");
}

void Argument<MBImageRetentionInfo*>::show(Call& call) const {
    call.show(isGiven,
              std::to_string(value.retentionValue1) + " " + std::to_string(value.retentionValue2) +
                  " " + std::to_string(value.retentionValue3) + " " +
                  std::to_string(value.retentionValue4) + " " + quoted(value.retentionText));
}

std::string shown(const MBEvent& e) {
    std::string out = std::to_string(e.size) + ":";
    for (const uint32_t number : {e.eventCode, e.httpStatus, e.attempts})
        out += " " + std::to_string(number);
    for (const char* text :
         {e.requestId, e.severity, e.serverAddress, e.sourceApplication, e.description})
        out += " " + quoted(text);
    return out;
}

std::string shown(const MBStatistics& s) {
    std::string out = std::to_string(s.size) + ":";
    for (const uint64_t number :
         {s.requests, s.attempts, s.connections, s.bytesSent, s.bytesReceived, s.microseconds,
          s.latencies[0], s.latencies[MB_LATENCIES - 1]})
        out += " " + std::to_string(number);
    return out;
}

namespace {

/// Releases the session or the cursor as the library does it.
template <typename Result>
Operation release(const char* kinds) {
    return {[](Objects& objects, const Words&) {
                objects.enter();
                Returned<Result>::release(objects);
                objects.leave();
                objects.status = CR_STATUS_OK;
                return withSlot("done");
            },
            kinds};
}

/// "all", or "size=N" for one of another size, or "null" for none; then criteria: "6=TEXT",
/// "10=TEXT", "12=CHARACTER", "numbers" for the longest that there are.
std::string fillFilter(Objects& objects, const Words& words) {
    MBPOFilter& filter = objects.filter;
    filter.size = words[1].compare(0, 5, "size=") == 0
                      ? static_cast<uint32_t>(number(words[1].substr(5)))
                      : sizeof filter;
    const uint32_t status = MBPOFilterInit(words[1] == "null" ? nullptr : &filter);
    for (size_t i = 2; i < words.size(); ++i) {
        const size_t equals = words[i].find('=') + 1;
        objects.filterText = Text(words[i].substr(equals)).text;
        if (words[i].compare(0, equals, "6=") == 0) filter.criterion6 = objects.filterText.c_str();
        if (words[i].compare(0, equals, "10=") == 0)
            filter.criterion10 = objects.filterText.c_str();
        if (words[i].compare(0, equals, "12=") == 0)
            filter.criterion12 = static_cast<signed char>(objects.filterText.at(0));
        if (words[i] != "numbers") continue;
        filter.criterion1 = INT32_MIN;
        filter.criterion16 = INT64_MIN;
        filter.criterion25 = INT32_MAX;
        memset(filter.criterion15, 'f', sizeof filter.criterion15 - 1);
        memset(filter.criterion3, 't', sizeof filter.criterion3 - 1);
    }
    return withSlot(std::to_string(status));
}

MBPOCursor* firstLine(MBSession* session, uint32_t dataselection, const MBPOFilter* filter,
                      const char** line, uint32_t* count) {
    return MBPOStringFindFirst(session, dataselection, filter, const_cast<char**>(line), count);
}
uint32_t nextLine(MBPOCursor* cursor, const char** line) {
    return MBPOStringFindNext(cursor, const_cast<char**>(line));
}

}  // namespace

const Operations& client() {
    static const Operations kRows = {
        {"KSConfigInitWithAgentCfg", bind(KSConfigInitWithAgentCfg)},
        {"KSConfigSet", bind(KSConfigSet)},
        {"MBAbort", bind(MBAbort)},
        {"MBAuthenticate", bind(MBAuthenticate)},
        {"MBCreate", bind(MBCreate)},
        {"MBCreateWithAgentCfg", bind(MBCreateWithAgentCfg)},
        {"MBDeleteImage", bind(MBDeleteImage)},
        {"MBDirCreate", bind(MBDirCreate)},
        {"MBDirList", bind(MBDirList, "listing length")},
        {"MBEnableResiliency", bind(MBEnableResiliency)},
        {"MBFileCopy", bind(MBFileCopy)},
        {"MBFileDelete", bind(MBFileDelete)},
        {"MBFileMove", bind(MBFileMove)},
        {"MBFindImagePolicy", bind(MBFindImagePolicy, "text")},
        {"MBGetHVXTag", bind(MBGetHVXTag, "digit text")},
        {"MBGetImageRetention", bind(MBGetImageRetention, "retention")},
        {"MBGetLastImages", bind(MBGetLastImages, "text")},
        {"MBGetResponseTimeOut", bind(MBGetResponseTimeOut, "seconds")},
        {"MBGetRetryCount", bind(MBGetRetryCount)},
        {"MBGetStatistics", bind(MBGetStatistics)},
        {"MBGetTime", bind(MBGetTime, "time")},
        {"MBGetTimeOut", bind(MBGetTimeOut)},
        {"MBInit", bind(MBInit)},
        {"MBInitWithAgentCfg", bind(MBInitWithAgentCfg)},
        {"MBKeepAlive", bind(MBKeepAlive)},
        {"MBLastEvent", bind(MBLastEvent)},
        {"MBOptionsSet", bind(MBOptionsSet)},
        {"MBPOAddList", bind(MBPOAddList)},
        {"MBPOExpire", bind(MBPOExpire)},
        {"MBPOFind", bind(MBPOFind, "text length count")},
        {"MBPOFindClose", release<MBPOCursor*>("")},
        {"MBPOFindFirst", bind(MBPOFindFirst, "po count")},
        {"MBPOFindNext", bind(MBPOFindNext, "po")},
        {"MBPOImport", bind(MBPOImport)},
        {"MBPOStringFindFirst", bind(firstLine, "line count")},
        {"MBPOStringFindNext", bind(nextLine, "line")},
        {"MBPOZELTAddList", bind(MBPOZELTAddList)},
        {"MBSetImageRetention", bind(MBSetImageRetention)},
        {"MBSetLastImage", bind(MBSetLastImage)},
        {"MBSetLastImageV2", bind(MBSetLastImageV2)},
        {"MBSetResponseTimeOut", bind(MBSetResponseTimeOut)},
        {"MBSetRetryCount", bind(MBSetRetryCount)},
        {"MBSetTimeOut", bind(MBSetTimeOut)},
        {"MBShutdown", release<MBSession*>("")},
        {"filter", {fillFilter}},
    };
    return kRows;
}

std::string run(Objects& objects, const std::string& line) {
    const Words words(line);
    return client().at(words[0]).run(objects, words);
}

std::vector<Row> rows(const std::string& url, const std::string& config) {
    std::ifstream file(OPERATIONS);
    std::vector<Row> out;
    for (std::string line; std::getline(file, line);) {
        for (const auto& [name, value] : {std::pair("$URL", url), std::pair("$CONFIG", config)}) {
            const size_t at = line.find(name);
            if (at != std::string::npos) line.replace(at, strlen(name), value);
        }
        std::vector<std::string> cells;
        for (size_t at = 0, end = 0; end != std::string::npos; at = end + 3) {
            end = line.find(" | ", at);
            cells.push_back(line.substr(at, end - at));
        }
        if (cells.size() < 3) continue;
        Row row{cells[0],
                {},
                static_cast<uint32_t>(number(cells[2])),
                cells.size() > 3 ? cells[3] : ""};
        std::istringstream before(cells[1]);
        for (std::string call; std::getline(before, call, ';');)
            if (!Words(call).empty()) row.before.push_back(call);
        out.push_back(row);
    }
    return out;
}

}  // namespace operations
