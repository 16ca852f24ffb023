// Whatever a server answers to a query, its lines come out as a plain reading of it has them, as
// texts and as POs, and nothing beyond its end.
#include <cstring>
#include <vector>

#include "mb.h"
#include "platform/po.h"
#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/fuzz_transport.h"

namespace {

/// What the answer holds: three lines, of which the third begins with the count, then the POs. The
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

void checkTexts(MBSession* session, const MBPOFilter& filter, const Plain& plain) {
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

void checkPOs(MBSession* session, const MBPOFilter& filter, const Plain& plain) {
    PO po{};
    MBPOCursor* cursor = MBPOFindFirst(session, 1, &filter, &po, nullptr);
    uint32_t status = 0;
    const bool isFound = plain.isWhole && plain.count > 0 && fuzz::archMode != UINT32_MAX;
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

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    fuzz::discardMessages();
    fuzz::Input input(bytes, size);
    fuzz::archMode = input.below(3) - 1;
    const std::string answer = input.all().c_str();  // the transport lets no NUL pass
    fuzz::onRequest = [&](WSResult& result) {
        result.data = answer.empty() ? nullptr : strdup(answer.c_str());
        return 0U;
    };
    MBSession* session = MBInitWithAgentCfg("http://127.0.0.1:1", 0, "a", "b", "/dev/null");
    MUST(session != nullptr);
    MBPOFilter filter;
    filter.size = sizeof filter;
    MUST(MBPOFilterInit(&filter) == 0);
    const Plain plain(answer);
    char* text = nullptr;
    size_t length = 0;
    uint32_t count = 0;
    const uint32_t status = MBPOFind(session, 1, &filter, &text, &length, &count);
    MUST((status == 0) == (plain.isWhole && plain.count > 0));
    MUST(status == 0 ? text == answer && length == answer.size() + 1 && count == plain.count
                     : text == nullptr && length == 0);
    free(text);
    checkTexts(session, filter, plain);
    checkPOs(session, filter, plain);
    MBShutdown(session);
    return 0;
}
