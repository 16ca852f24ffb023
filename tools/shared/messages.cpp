#include "tools/shared/messages.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <exception>
#include <iterator>

#include "cr_status.h"
#include "platform/status.h"
#include "platform/support.h"
#include "tools/shared/failure.h"
#include "tools/shared/text.h"

namespace tool {
namespace {

struct LevelName {
    uint32_t level;
    const char* name;
};

constexpr LevelName kLevelNames[] = {
    {QLX_LEVEL_TRACE, "trace"},   {QLX_LEVEL_NOTE, "note"},       {QLX_LEVEL_INFO, "info"},
    {QLX_LEVEL_NOTICE, "notice"}, {QLX_LEVEL_WARNING, "warning"}, {QLX_LEVEL_ERROR, "error"},
};

void show(uint32_t level, uint32_t status, const char* text) {
    const auto* row = std::find_if(std::begin(kLevelNames), std::end(kLevelNames),
                                   [=](const LevelName& l) { return l.level == level; });
    std::string head = row != std::end(kLevelNames) ? row->name : "level " + std::to_string(level);
    if (level != QLX_LEVEL_TRACE) head += " " + std::to_string(status);
    complain(head + ": " + printable(text));
}

/// Errors about an event carry the event's code as their status. Other errors carry a status that
/// operations return, or no status (0xFFFFFFFF).
bool mayBeEvent(uint32_t level, uint32_t status) {
    return level == QLX_LEVEL_ERROR && status != CR_STATUS_OK && status != UINT32_MAX &&
           status != CR_STATUS_REMOTE_ERROR && status != CR_STATUS_PERMISSION_DENIED;
}

}  // namespace

bool isTransport(uint32_t status) {
    return status >= CR_STATUS_TRANSPORT_BASE && status < CR_STATUS_TRANSPORT_BASE + 100;
}

Messages::Messages(bool shown) : shown_(shown) {
    qlxSetSink(hear, this);
    *__qlxlog_trace_location() = shown ? 1 : 0;
}

Messages::~Messages() {
    qlxSetSink(nullptr, nullptr);
}

void Messages::hear(uint32_t level, uint32_t status, const char* text, void* self) noexcept {
    auto& messages = *static_cast<Messages*>(self);
    if (mayBeEvent(level, status)) messages.event_ = status;
    const bool notRead = status == CR_STATUS_READ_FAILED || status == CR_STATUS_NO_MEMORY;
    if (level == QLX_LEVEL_NOTICE && notRead) messages.notRead_ = status;
    try {
        if (level == QLX_LEVEL_NOTICE && isTransport(status)) messages.reason_ = text;
        if (!messages.shown_) return;
        if (messages.beforeEach_) messages.beforeEach_();
        show(level, status, text);
    } catch (const std::exception&) {
        fprintf(stderr, "%s: a message was lost for want of memory\n", programName());
    }
}

void Messages::forget() {
    event_ = 0;
    reason_.clear();
    qlxSetFatalError("", 0, "%s", "");
}

std::string Messages::description() const {
    std::array<char, 4096> text{};
    qlxGetFatalError(nullptr, 0, text.data(), text.size());
    std::string description = text.data();
    while (!description.empty() && (description.back() == '\n' || description.back() == ' '))
        description.pop_back();
    return printable(description);
}

/// A notice of the transport is "URL: REASON (HTTP status NUMBER)".
std::string Messages::reason() const {
    const size_t url = reason_.starts_with("http") ? reason_.find(": ") : std::string::npos;
    const size_t begin = url == std::string::npos ? 0 : url + 2;
    return printable(reason_.substr(begin, reason_.rfind(" (HTTP status ") - begin));
}

}  // namespace tool
