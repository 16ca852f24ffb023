// The transport's stand-in: answers as they arrive, and what they mean.
#include <strings.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <nlohmann/json.hpp>

#include "platform/standin/standin_ws_int.h"

namespace ws {
namespace {

constexpr size_t kMostHeaderBytes = 256 * 1024;
constexpr size_t kFirstCapacity = 4096;

std::atomic<uint64_t> limit = uint64_t{4} << 30;

/// The value of a header line if it is the named one, else NULL.
const char* valueOf(const std::string& line, const char* name) {
    const size_t length = strlen(name);
    if (line.size() <= length || line[length] != ':') return nullptr;
    if (strncasecmp(line.c_str(), name, length) != 0) return nullptr;
    return line.c_str() + length + 1 + strspn(line.c_str() + length + 1, " \t");
}

/// Whether a content type is the given one, whatever parameters follow.
bool isType(const std::string& contentType, const char* type) {
    const size_t length = contentType.find_first_of("; \t\r\n");
    const std::string bare = contentType.substr(0, length);
    return strcasecmp(bare.c_str(), type) == 0;
}

std::string textMember(const nlohmann::json& problem, const char* name) {
    const auto member = problem.find(name);
    return member != problem.end() && member->is_string() ? member->get<std::string>() : "";
}

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
    try {
        const std::string text(line, length);
        if (strncmp(text.c_str(), "HTTP/", 5) == 0) {  // what came before was an interim answer
            contentType_.clear();
            endIsKnown_ = false;
            headIsComplete_ = false;
        } else if (text == "\r\n" || text == "\n") {
            headIsComplete_ = true;
        } else if (const char* type = valueOf(text, "content-type")) {
            contentType_ = type;
        } else if (const char* coding = valueOf(text, "transfer-encoding")) {
            endIsKnown_ = endIsKnown_ || strncasecmp(coding, "chunked", 7) == 0;
        } else if (const char* size = valueOf(text, "content-length")) {
            endIsKnown_ = true;
            if (strtoull(size, nullptr, 10) > answerLimit()) refusal_ = WS_STATUS_TOO_LARGE;
        }
    } catch (const std::exception&) {
        refusal_ = CR_STATUS_NO_MEMORY;
    }
    return refusal_ == 0 ? length : 0;
}

/// Makes room for so many bytes more and a NUL.
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
    if (size_ + length > answerLimit()) {
        refusal_ = WS_STATUS_TOO_LARGE;
    } else if (!grow(length)) {
        refusal_ = CR_STATUS_NO_MEMORY;
    }
    if (refusal_ != 0) return 0;
    memcpy(text_.get() + size_, bytes, length);
    size_ += length;
    return length;
}

uint32_t Collector::judge(long httpStatus, Text& text, Event& event) {
    if (!headIsComplete_) return WS_STATUS_CUT;
    if (!endIsKnown_) return WS_STATUS_BAD_ANSWER;
    if (httpStatus >= 400 && httpStatus < 600) return judgeProblem(event);
    if (httpStatus != 200 || !isType(contentType_, "text/plain")) return WS_STATUS_BAD_ANSWER;
    if (size_ == 0) return CR_STATUS_OK;
    if (memchr(text_.get(), '\0', size_) != nullptr) return WS_STATUS_BAD_ANSWER;
    text_.get()[size_] = '\0';
    text = std::move(text_);
    if (auto* fitting = static_cast<char*>(realloc(text.get(), size_ + 1))) {
        [[maybe_unused]] char* moved = text.release();
        text.reset(fitting);
    }
    return CR_STATUS_OK;
}

uint32_t Collector::judgeProblem(Event& event) const {
    if (!isType(contentType_, "application/problem+json") || size_ == 0) {
        return WS_STATUS_BAD_ANSWER;
    }
    const auto problem = nlohmann::json::parse(text_.get(), text_.get() + size_, nullptr,
                                               /*allow_exceptions=*/false);
    if (!problem.is_object()) return WS_STATUS_BAD_ANSWER;
    const auto code = problem.find("eventCode");
    if (code == problem.end() || !code->is_number_unsigned()) return WS_STATUS_BAD_ANSWER;
    const auto number = code->get<uint64_t>();
    if (number == 0 || number > UINT32_MAX) return WS_STATUS_BAD_ANSWER;
    event = {static_cast<uint32_t>(number), textMember(problem, "severity"),
             textMember(problem, "serverAddress"), textMember(problem, "sourceApplication"),
             textMember(problem, "detail")};
    return CR_STATUS_OK;
}

}  // namespace ws

void WSSetAnswerLimit(uint64_t bytes) noexcept {
    ws::limit = bytes;
}
