// Any text as the answer to each operation: the outputs are those of a plain reading, of a query as
// texts and as POs, and nothing beyond the text's end.
#include <cstring>
#include <vector>

#include "mb.h"
#include "platform/net.h"
#include "platform/po.h"
#include "platform/status.h"
#include "platform/ws.h"
#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/fuzz_replies.h"

namespace {

/// The fields before the first empty one, each cut to 1023 characters as a field of its own.
std::vector<std::string> plainFields(const std::string& answer) {
    constexpr size_t kMost = 1023;
    std::vector<std::string> fields;
    for (size_t at = 0; at < answer.size() && answer[at] != ';';) {
        fields.push_back(answer.substr(at, std::min(answer.find(';', at) - at, kMost)));
        at += fields.back().size() + 1;
    }
    return fields;
}

void checkRetention(MBSession* session, const std::string& answer) {
    MBImageRetentionInfo info{};
    const uint32_t status = MBGetImageRetention(session, 1, "client", "policy", "image", &info);
    MUST(status == (answer.empty() ? 4U : 0U));
    const auto fields = plainFields(answer);
    const int64_t numbers[] = {info.retentionValue1, info.retentionValue2, info.retentionValue3,
                               info.retentionValue4};
    for (size_t i = 0; i < 4; ++i) {
        MUST(numbers[i] == (i < fields.size() ? strtoll(fields[i].c_str(), nullptr, 10) : 0));
    }
    MUST(info.retentionText == (fields.size() > 4 ? fields[4] : ""));
}

void checkTag(MBSession* session, const std::string& answer) {
    int32_t digit = 0;
    char* tag = nullptr;
    const uint32_t status = MBGetHVXTag(session, 1, &digit, &tag);
    const int plain = answer.empty() ? 0 : static_cast<signed char>(answer[0]) - '0';
    MUST(status == (answer.empty() ? 4U : plain > 0 && answer.size() < 3 ? 82U : 0U));
    MUST(answer.empty() || digit == plain);
    MUST((tag != nullptr) == (status == 0 && plain > 0));
    if (tag != nullptr) {
        std::string decoded = answer.substr(2, answer.size() - 3);
        URLDecode(decoded.data());
        MUST(tag == std::string(decoded.c_str()));
    }
    free(tag);
}

void checkImages(MBSession* session, const std::string& answer) {
    char *images = nullptr, *policy = nullptr, *listing = nullptr;
    size_t length = 4711;
    uint32_t serverTime = 0;
    const uint32_t expected = answer.empty() ? 4 : 0;
    MUST(MBGetLastImages(session, 1, "client", "policy", 0, 0, &images) == expected);
    MUST(MBFindImagePolicy(session, 1, "client", "image", &policy) == expected);
    MUST(answer.empty() ? images == nullptr && policy == nullptr
                        : images == answer && policy == answer);
    if (MBDirList(session, "/", &listing, &length, 1) == 0 && listing != nullptr) {
        MUST(listing == answer);
    }
    MBGetTime(session, &serverTime);
    free(images);
    free(policy);
    free(listing);
}

/// The answer to a query: three lines, of which the third begins with the count, then the POs. The
/// last one need not end, and stands for all that are missing.
struct Plain {
    bool isWhole = false;
    uint32_t count = 0;
    std::vector<std::string> lines;

    explicit Plain(const std::string& answer) {
        std::vector<std::string> pieces(1);
        for (const char c : answer) {
            if (c == '\n' || c == '\r') {
                pieces.emplace_back();
            } else {
                pieces.back() += c;
            }
        }
        isWhole = pieces.size() > 3;
        if (!isWhole) return;
        count = static_cast<uint32_t>(strtol(pieces[2].c_str(), nullptr, 10));
        lines.assign(pieces.begin() + 3, pieces.end());
    }
    const std::string& line(size_t i) const { return lines[std::min(i, lines.size() - 1)]; }
};

constexpr size_t kMostLines = 400;

void checkLines(MBSession* session, const MBPOFilter& filter, const Plain& plain) {
    char* line = nullptr;
    uint32_t count = 0;
    MBPOCursor* cursor = MBPOStringFindFirst(session, 1, &filter, &line, &count);
    MUST((cursor != nullptr) == (plain.isWhole && plain.count > 0));
    for (size_t i = 0; cursor != nullptr && i < kMostLines; ++i) {
        MUST(count == plain.count);
        MUST(line == plain.line(i));
        const uint32_t status = MBPOStringFindNext(cursor, &line);
        MUST((status == 0) == (i + 1 < plain.count));
        if (status != 0) break;
    }
    MBPOFindClose(cursor);
}

void checkPOs(MBSession* session, const MBPOFilter& filter, const Plain& plain, bool archFails) {
    PO po{};
    MBPOCursor* cursor = MBPOFindFirst(session, 1, &filter, &po, nullptr);
    uint32_t status = 0;
    const bool isFound = plain.isWhole && plain.count > 0 && !archFails;
    MUST((cursor != nullptr) == (isFound && plain.line(0).find('|') != std::string::npos));
    for (size_t i = 0; cursor != nullptr && i < kMostLines; ++i) {
        const bool isOne = plain.line(i).find('|') != std::string::npos;
        MUST((status == 0) == isOne);
        MUST(isOne ? po.text != nullptr && po.text == plain.line(i) : po.text == nullptr);
        for (uint32_t field = 0; field < 30; ++field) {
            size_t length = 0;
            const char* text = POGetField(&po, field, &length);
            MUST(text == nullptr || text + length <= po.text + plain.line(i).size());
        }
        if (i + 1 >= plain.count) break;
        status = MBPOFindNext(cursor, &po);
    }
    MBPOFindClose(cursor);
    POReset(&po);
}

void checkFind(MBSession* session, const MBPOFilter& filter, const Plain& plain,
               const std::string& answer) {
    char* text = nullptr;
    size_t length = 0;
    uint32_t count = 0;
    const uint32_t status = MBPOFind(session, 1, &filter, &text, &length, &count);
    MUST((status == 0) == (plain.isWhole && plain.count > 0));
    MUST(status == 0 ? text == answer && length == answer.size() + 1 && count == plain.count
                     : text == nullptr && length == 0);
    free(text);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    fuzz::discardMessages();
    fuzz::Input input(bytes, size);
    const uint32_t archMode = input.below(3) - 1;
    const std::string answer = input.all().c_str();  // the transport lets no NUL pass
    fuzz::onCall = [&](const std::string& call) {
        scripted::Reply reply;
        if (call == "WSArchMode") reply.status = fuzz::modeWithSlot(archMode);
        if (call.compare(0, 9, "WSRequest") == 0 && !answer.empty()) reply.data = answer;
        return reply;
    };
    MBSession* session = MBInitWithAgentCfg("http://127.0.0.1:1", 0, "a", "b", "/dev/null");
    MUST(session != nullptr);
    MBPOFilter filter;
    filter.size = sizeof filter;
    MUST(MBPOFilterInit(&filter) == 0);
    const Plain plain(answer);
    checkFind(session, filter, plain, answer);
    checkLines(session, filter, plain);
    checkPOs(session, filter, plain, archMode == UINT32_MAX);
    checkRetention(session, answer);
    checkTag(session, answer);
    checkImages(session, answer);
    MBShutdown(session);
    return 0;
}
