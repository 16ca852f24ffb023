// The transport's stand-in: receives and validates one answer. A piece that violates the protocol
// or a limit ends the transfer at once, so that a server cannot make the client read or allocate
// without bound.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <iterator>
#include <string_view>
#include <utility>

// An assertion of the JSON library fails, and would end the process, on a number with a fraction in
// a locale whose decimal point is more than one byte.
#define JSON_ASSERT(condition) static_cast<void>(0)
#include <nlohmann/json.hpp>

#include "common/ascii.h"
#include "platform/standin/transport/transport.h"

namespace ws {
namespace {

constexpr size_t kMostHeaderBytes = size_t{256} << 10;
constexpr uint64_t kMostProblemBytes = uint64_t{1} << 20;
constexpr size_t kFirstCapacity = 4096;

std::atomic<uint64_t> limit = uint64_t{4} << 30;

/// If the header line begins with `name` ("name:"), strips it and the blanks after it.
bool takeName(std::string_view& line, std::string_view name) {
    if (!kspool::beginsWith(line, name)) return false;
    line.remove_prefix(name.size());
    line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
    return true;
}

/// True for a line that programs interpret differently: a continuation of the line before (obsolete
/// line folding), or a line with a CR that is not part of its end.
bool isAmbiguous(std::string_view line) {
    if (line.ends_with('\n')) line.remove_suffix(1);
    if (line.ends_with('\r')) line.remove_suffix(1);
    return line.starts_with(' ') || line.starts_with('\t') || line.find('\r') != line.npos;
}

/// Compares a header's value without its parameters ("; charset=utf-8").
bool isType(std::string_view value, std::string_view type) {
    const std::string_view bare = value.substr(0, value.find_first_of("; \t\r\n"));
    return kspool::sameText(bare, type);
}

/// A text of an event, with control characters replaced by spaces: it ends up in logs, where a
/// server must not be able to forge lines.
std::string printable(std::string text) {
    for (size_t at = 0, shown = 0; at < text.size(); at += std::max(shown, size_t{1})) {
        shown = kspool::shownLength(std::string_view(text).substr(at));
        if (shown == 0) text[at] = ' ';
    }
    return text;
}

/// Reads a problem document by SAX events; of equal names the last one counts. The JSON library's
/// tree of values is not used, because its destructor allocates: lack of memory would end the
/// process.
class ProblemReader : public nlohmann::json_sax<nlohmann::json> {
  public:
    bool isEvent() const { return isObject_ && code_ > 0 && code_ <= UINT32_MAX; }
    Event takeEvent() {
        event_.code = static_cast<uint32_t>(code_);
        return std::move(event_);
    }

    bool null() override { return member(); }
    bool boolean(bool) override { return member(); }
    bool number_integer(number_integer_t) override { return member(); }
    bool number_unsigned(number_unsigned_t value) override { return member(value); }
    bool number_float(number_float_t, const string_t&) override { return member(); }
    bool string(string_t& value) override { return member(0, std::move(value)); }
    bool binary(binary_t&) override { return member(); }
    bool start_object(size_t) override {
        isObject_ = isObject_ || depth_ == 0;
        return begin();
    }
    bool key(string_t& name) override {
        if (depth_ == 1) name_ = std::move(name);
        return true;
    }
    bool start_array(size_t) override { return begin(); }
    bool end_object() override { return end(); }
    bool end_array() override { return end(); }
    bool parse_error(size_t, const std::string&, const nlohmann::detail::exception&) override {
        return false;
    }

  private:
    struct Text {
        const char* name;
        std::string Event::*member;
    };
    static constexpr Text kTexts[] = {{"severity", &Event::severity},
                                      {"serverAddress", &Event::serverAddress},
                                      {"sourceApplication", &Event::sourceApplication},
                                      {"detail", &Event::description}};

    bool begin() {
        member();
        ++depth_;
        return true;
    }
    bool end() {
        --depth_;
        return true;
    }

    /// Takes a value as a number (0 for any other type) and as a text.
    bool member(uint64_t number = 0, std::string text = {}) {
        if (depth_ != 1) return true;
        if (name_ == "eventCode") code_ = number;
        const auto* const row = std::find_if(std::begin(kTexts), std::end(kTexts),
                                             [&](const Text& each) { return name_ == each.name; });
        if (row != std::end(kTexts)) event_.*row->member = printable(std::move(text));
        return true;
    }

    Event event_;
    uint64_t code_ = 0;
    std::string name_;  ///< of the member that is being read
    size_t depth_ = 0;  ///< objects and arrays that are open
    bool isObject_ = false;
};

}  // namespace

uint64_t answerLimit() noexcept {
    return limit;
}

size_t Collector::header(const char* line, size_t length) noexcept {
    headerBytes_ += length;
    if (headerBytes_ > kMostHeaderBytes) {
        refusal_ = WS_STATUS_TOO_LARGE;
        return 0;
    }
    std::string_view rest(line, length);
    rest = rest.substr(0, rest.find_last_not_of(" \t\r\n") + 1);
    const bool isStatusLine = kspool::beginsWith(rest, "HTTP/");
    const bool mayBegin = std::exchange(mayBegin_, false);
    if (isStatusLine && mayBegin) {
        content_ = Content::kOther;
        headIsComplete_ = isChunked_ = hasLength_ = false;
        isInterim_ = rest.substr(0, 10).ends_with(" 1");
        const bool isKnown = kspool::beginsWith(rest, "HTTP/1.");
        if (!isKnown || isAmbiguous({line, length})) refusal_ = WS_STATUS_BAD_ANSWER;
    } else if (headIsComplete_) {
        return length;  // a trailer, which changes nothing
    } else if (isStatusLine || isAmbiguous({line, length})) {
        refusal_ = WS_STATUS_BAD_ANSWER;
    } else if (rest.empty()) {
        headIsComplete_ = true;
        mayBegin_ = isInterim_;
    } else if (takeName(rest, "content-type:")) {
        content_ = isType(rest, "text/plain")                 ? Content::kPlainText
                   : isType(rest, "application/problem+json") ? Content::kProblem
                                                              : Content::kOther;
    } else if (takeName(rest, "content-encoding:")) {
        if (!isType(rest, "identity")) refusal_ = WS_STATUS_BAD_ANSWER;
    } else if (takeName(rest, "transfer-encoding:")) {
        // libcurl would also decode other transfer codings, and would ignore a Content-Length
        // beside this header, by which a proxy may have delimited the answer.
        const bool plain = kspool::sameText(rest, "chunked");
        if (!plain || isChunked_ || hasLength_) refusal_ = WS_STATUS_BAD_ANSWER;
        isChunked_ = true;
    } else if (takeName(rest, "content-length:")) {
        takeLength(rest);
    }
    return refusal_ == 0 ? length : 0;
}

/// Accepts a Content-Length of digits only, and repeated ones if equal. Programs interpret other
/// forms differently, and would then disagree about where the answer ends.
void Collector::takeLength(std::string_view text) noexcept {
    constexpr size_t kMostDigits = 19;
    const bool digits =
        !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
    uint64_t length = 0;
    for (const char c : text.substr(0, kMostDigits))
        length = length * 10 + static_cast<uint64_t>(c - '0');
    if (!digits || isChunked_ || (hasLength_ && length != length_)) {
        refusal_ = WS_STATUS_BAD_ANSWER;
    } else if (text.size() > kMostDigits || length > answerLimit()) {
        refusal_ = WS_STATUS_TOO_LARGE;
    }
    hasLength_ = true;
    length_ = length;
}

/// Makes room for `length` more bytes and a NUL. The capacity doubles: with a fixed step, copying
/// would take time quadratic in the size of the answer.
bool Collector::grow(size_t length) noexcept {
    const size_t needed = size_ + length + 1;
    if (needed <= capacity_) return true;
    const size_t capacity = std::max({needed, 2 * capacity_, kFirstCapacity});
    auto* larger = static_cast<char*>(realloc(text_.get(), capacity));
    if (larger == nullptr) return false;
    [[maybe_unused]] char* moved = text_.release();
    text_.reset(larger);
    capacity_ = capacity;
    return true;
}

size_t Collector::body(const char* bytes, size_t length) noexcept {
    const uint64_t most =
        content_ == Content::kProblem ? std::min(answerLimit(), kMostProblemBytes) : answerLimit();
    if (size_ + length > most) {
        refusal_ = WS_STATUS_TOO_LARGE;
    } else if (!grow(length)) {
        refusal_ = CR_STATUS_NO_MEMORY;
    }
    if (refusal_ != 0) return 0;
    memcpy(text_.get() + size_, bytes, length);
    size_ += length;
    return length;
}

uint32_t Collector::judge(long httpStatus, kspool::OwnedText& text, Event& event) {
    if (!headIsComplete_) return WS_STATUS_CUT;
    // A body that ends with the connection cannot be told from a truncated one.
    if (!isChunked_ && !hasLength_) return WS_STATUS_BAD_ANSWER;
    if (size_ > 0 && memchr(text_.get(), '\0', size_) != nullptr) return WS_STATUS_BAD_ANSWER;
    if (httpStatus >= 400 && httpStatus < 600) return judgeProblem(event);
    if (httpStatus != 200 || content_ != Content::kPlainText) return WS_STATUS_BAD_ANSWER;
    if (size_ == 0) return CR_STATUS_OK;
    text_.get()[size_] = '\0';
    text = std::move(text_);
    // The caller may keep the text for long, so free the unused part of the buffer.
    if (auto* fitting = static_cast<char*>(realloc(text.get(), size_ + 1))) {
        [[maybe_unused]] char* moved = text.release();
        text.reset(fitting);
    }
    return CR_STATUS_OK;
}

uint32_t Collector::judgeProblem(Event& event) const {
    if (content_ != Content::kProblem || size_ == 0) return WS_STATUS_BAD_ANSWER;
    ProblemReader reader;
    const bool isWhole = nlohmann::json::sax_parse(text_.get(), text_.get() + size_, &reader);
    if (!isWhole || !reader.isEvent()) return WS_STATUS_BAD_ANSWER;
    event = reader.takeEvent();
    return CR_STATUS_OK;
}

}  // namespace ws

void WSSetAnswerLimit(uint64_t bytes) noexcept {
    ws::limit = bytes;
}
