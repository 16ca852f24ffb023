// An HTTP answer of any head and body, problem documents among them: it is a text, an event or a
// failure, never two of these, and no control character reaches a log.
#include <cstring>

#include "platform/standin/transport/transport.h"
#include "tests/fuzz/fuzz.h"

namespace {

constexpr uint64_t kLimit = 1 << 16;

/// Hands an answer to a collector as libcurl does: line by line up to the empty one, then in
/// pieces. The pieces that were taken are its body.
std::string deliver(ws::Collector& collector, std::string_view rest, size_t piece) {
    std::string body;
    bool isHead = true;
    while (isHead && !rest.empty()) {
        const size_t length = std::min(rest.find('\n'), rest.size() - 1) + 1;
        if (collector.header(rest.data(), length) != length) return body;
        isHead = rest.substr(0, length).find_first_not_of(" \t\r\n") != std::string_view::npos;
        rest.remove_prefix(length);
    }
    while (!rest.empty()) {
        const size_t length = std::min(rest.size(), piece);
        if (collector.body(rest.data(), length) != length) return body;
        body.append(rest.substr(0, length));
        rest.remove_prefix(length);
    }
    return body;
}

void mustBePrintable(const std::string& text) {
    for (const char c : text)
        MUST(static_cast<unsigned char>(c) >= 0x20 && c != 0x7f);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    static constexpr long kCodes[] = {100, 200, 204, 206, 301, 400, 401, 403, 429, 500, 503, 599};
    fuzz::Input input(bytes, size);
    WSSetAnswerLimit(kLimit);
    const long code = kCodes[input.below(std::size(kCodes))];
    const size_t piece = input.byte() + size_t{1};
    const std::string answer = input.all();
    ws::Collector collector;
    const std::string body = deliver(collector, answer, piece);
    MUST(body.size() <= kLimit);
    if (collector.refusal() != 0) return 0;
    kspool::OwnedText text;
    ws::Event event;
    const uint32_t status = collector.judge(code, text, event);
    MUST(status == 0 || (text == nullptr && event.code == 0));
    MUST(event.code == 0 || (code >= 400 && text == nullptr));
    MUST(text == nullptr ||
         (code == 200 && text.get() == body && strlen(text.get()) == body.size()));
    for (const std::string* known :
         {&event.severity, &event.serverAddress, &event.sourceApplication, &event.description})
        mustBePrintable(*known);
    return 0;
}
