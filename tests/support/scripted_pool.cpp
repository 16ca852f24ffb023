// The scripted platform's configuration reader, network functions, transport and PO library.
#include "tests/support/scripted_pool.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <initializer_list>
#include <map>
#include <set>

#include "cr_status.h"
#include "platform/ini.h"
#include "platform/net.h"
#include "platform/po.h"
#include "platform/status.h"
#include "platform/support.h"
#include "platform/ws.h"
#include "tests/support/scripted_platform.h"
#include "tests/support/system_calls.h"

const char _qlx_config_section_string_table_[256] = {};
const char _qlx_config_entry_string_table_[4096] = {};

namespace scripted {
namespace {

constexpr uint32_t kInjected = 2077;

std::map<std::string, std::deque<Reply>> replies;
std::map<std::pair<int, int>, std::string> values;
bool configurationIsRecorded = true;
Reply kept;  ///< keeps the texts of the last answer alive

void recordReading(const std::string& line) {
    if (configurationIsRecorded) record(line);
}

/// The next reply of a call, which is recorded. A failure on demand comes before what is queued.
Reply answered(const std::string& call, const std::string& arguments, bool mayFail = true) {
    record(call + "(" + arguments + ")");
    if (mayFail && calls::failsOnDemand(calls::kPlatform)) {
        Reply failure;
        failure.status = kInjected;
        return failure;
    }
    std::deque<Reply>& queue = replies[call];
    if (queue.empty()) return {};
    Reply next = queue.front();
    queue.pop_front();
    if (next.meanwhile) next.meanwhile();
    return next;
}

const char* known(const std::optional<std::string>& text) {
    return text.has_value() ? text->c_str() : nullptr;
}

char* copied(const std::optional<std::string>& text) {
    if (!text.has_value()) return nullptr;
    auto* copy = static_cast<char*>(calloc(1, text->size() + 1));
    if (copy != nullptr) memcpy(copy, text->c_str(), text->size());
    return copy;
}

std::string optionText(const WSOption& option) {
    const std::set<uint32_t> texts = {WS_OPT_SERVER_URL, WS_OPT_LOGIN, WS_OPT_PASSWORD,
                                      WS_OPT_SSL_KEY_LOCATION};
    return std::to_string(option.code) + " " +
           (texts.count(option.code) != 0 ? quoted(option.value.text)
                                          : std::to_string(option.value.number));
}

const std::string* configured(const char* section, const char* entry) {
    const auto value = values.find({static_cast<int>(section - _qlx_config_section_string_table_),
                                    static_cast<int>(entry - _qlx_config_entry_string_table_)});
    return value == values.end() ? nullptr : &value->second;
}

int text(const char* call, const char* section, const char* entry, char* destination,
         int maxCharacters, const char* defaultValue, const char* file) {
    recordReading(std::string(call) + "(" + nameOffsets(section, entry) + ", " +
                  std::to_string(maxCharacters) + ", " + quoted(defaultValue) + ", " +
                  quoted(file) + ")");
    const std::string* value = configured(section, entry);
    const char* source = value != nullptr          ? value->c_str()
                         : defaultValue != nullptr ? defaultValue
                                                   : "";
    qlxstrcpy(destination, source, static_cast<size_t>(maxCharacters) + 1);
    return value != nullptr ? static_cast<int>(strlen(destination)) : 0;
}

template <typename Integer>
int integer(const char* call, const char* section, const char* entry, Integer* result,
            Integer defaultValue, const char* file) {
    recordReading(std::string(call) + "(" + nameOffsets(section, entry) + ", " +
                  std::to_string(defaultValue) + ", " + quoted(file) + ")");
    const std::string* value = configured(section, entry);
    *result = value != nullptr ? static_cast<Integer>(std::stoll(*value)) : defaultValue;
    return value != nullptr ? 1 : 0;
}

/// The parameters of a request, each taken in the width that its name has.
std::string parameters(va_list& list) {
    std::string out;
    while (const char* name = va_arg(list, const char*)) {
        out += std::string(", ") + name + "=";
        const auto is = [=](std::initializer_list<const char*> names) {
            return std::any_of(names.begin(), names.end(),
                               [=](const char* n) { return strcmp(n, name) == 0; });
        };
        if (is({"recursive", "dataselection", "dsid"})) {
            out += std::to_string(va_arg(list, uint32_t));
        } else if (is({"parentid", "flags"})) {
            out += std::to_string(va_arg(list, int32_t));
        } else if (is({"datetime", "dcid"})) {
            out += std::to_string(va_arg(list, uint64_t));
        } else if (is({"wormflags", "retention"})) {
            out += std::to_string(va_arg(list, int64_t));
        } else {
            out += quoted(va_arg(list, const char*));
        }
    }
    return out;
}

/// Fills a result record from a reply, and returns the status.
uint32_t fill(WSResult* result, const Reply& reply) {
    kept = reply;
    result->eventCode = kept.eventCode;
    result->data = copied(kept.data);
    result->severity = known(kept.severity);
    result->serverAddress = known(kept.serverAddress);
    result->sourceApplication = known(kept.sourceApplication);
    result->description = known(kept.description);
    const bool lost = kept.data.has_value() && result->data == nullptr;
    return lost ? uint32_t{CR_STATUS_NO_MEMORY} : kept.status;
}

/// What a record that is not zeroed is called.
const char* stateOf(const WSResult* result) {
    static const WSResult kZeroed{};
    return memcmp(result, &kZeroed, sizeof kZeroed) == 0 ? "" : ", result not zeroed";
}

}  // namespace

std::string nameOffsets(const char* section, const char* entry) {
    return std::to_string(section - _qlx_config_section_string_table_) + ", " +
           std::to_string(entry - _qlx_config_entry_string_table_);
}

void queueReply(const std::string& call, const Reply& reply) {
    replies[call].push_back(reply);
}

void configValue(int section, int entry, const std::string& value) {
    values[{section, entry}] = value;
}

void recordConfiguration(bool recorded) {
    configurationIsRecorded = recorded;
}

void forgetQueued() {
    replies.clear();
}

void forgetReplies() {
    configurationIsRecorded = true;
    replies.clear();
    values.clear();
}

}  // namespace scripted

using namespace scripted;

/// Made and released as the allocations are, so that one that is lost shows.
struct WSTransport {
    char byte;
};

int InifileGetValueA(const char* section, const char* entry, char* destination, int maxCharacters,
                     const char* defaultValue, const char* file) noexcept {
    return text("InifileGetValueA", section, entry, destination, maxCharacters, defaultValue, file);
}
int InifileGetPathA(const char* section, const char* entry, char* destination, int maxCharacters,
                    const char* defaultValue, const char* file) noexcept {
    return text("InifileGetPathA", section, entry, destination, maxCharacters, defaultValue, file);
}
int InifileGetLongLongA(const char* section, const char* entry, int64_t* value,
                        int64_t defaultValue, const char* file) noexcept {
    return integer("InifileGetLongLongA", section, entry, value, defaultValue, file);
}
int InifileGetIntegerA(const char* section, const char* entry, int32_t* value, int32_t defaultValue,
                       const char* file) noexcept {
    return integer("InifileGetIntegerA", section, entry, value, defaultValue, file);
}
void InifileNoticeA(const char* file, const char* section, const char* entry, int unused,
                    const char* message) noexcept {
    recordReading("InifileNoticeA(" + quoted(file) + ", " + nameOffsets(section, entry) + ", " +
                  std::to_string(unused) + ", " + quoted(message) + ")");
}
void InifileValueNoticeA(const char* file, const char* section, const char* entry, int64_t value,
                         const char* message) noexcept {
    recordReading("InifileValueNoticeA(" + quoted(file) + ", " + nameOffsets(section, entry) +
                  ", " + std::to_string(value) + ", " + quoted(message) + ")");
}

int NetExtractHostAndPort(const char* url, char* buffer, size_t size, int unused) noexcept {
    record("NetExtractHostAndPort(" + quoted(url) + ", " + std::to_string(size) + ", " +
           std::to_string(unused) + ")");
    const size_t length = strcspn(url, "/");
    qlxstrcpy(buffer, url, std::min(size, length + 1));
    return static_cast<int>(strlen(buffer));
}

char* CRConfigLocate(const char* kind, char* buffer, size_t size) noexcept {
    const Reply reply = answered("CRConfigLocate", quoted(kind) + ", " + std::to_string(size));
    if (reply.status == 0) return strcpy(buffer, "/located.cfg");
    *__cr_errno_location() = reply.status;
    return nullptr;
}
int qlx_access(const char* path, int mode) noexcept {
    const Reply reply = answered("qlx_access", quoted(path) + ", " + std::to_string(mode));
    errno = reply.status == 0           ? 0
            : reply.status == kInjected ? EIO
                                        : static_cast<int>(reply.status);
    return reply.status == 0 ? 0 : -1;
}
const char* OSGetProcName(int unused) noexcept {
    record("OSGetProcName(" + std::to_string(unused) + ")");
    return "agent";
}
char* qlxstrcpy(char* destination, const char* source, size_t size) noexcept {
    if (size == 0) return destination;
    const size_t length = strnlen(source, size - 1);
    memcpy(destination, source, length);
    destination[length] = '\0';
    return destination;
}
int CRFPTypeIsValid(uint32_t type) noexcept {
    return type == 1 || type == 3 || type == 300;
}
int CRDOTypeIsValid(uint8_t type) noexcept {
    return type == 2;
}
void POReset(PO* po) noexcept {
    record("POReset()");
    free(po->text);
    po->text = nullptr;
}

void POSetStype(PO* po, uint32_t stype) noexcept {
    record("POSetStype(" + std::to_string(stype) + ")");
    po->stype = stype;
}
int POSetFromNonConstString(PO* po, char* line) noexcept {
    const Reply reply = answered("POSetFromNonConstString", quoted(line));
    po->text = reply.status == 0 ? copied(std::string(line)) : nullptr;
    if (po->text != nullptr) return 0;
    *__cr_errno_location() = reply.status != 0 ? reply.status : uint32_t{CR_STATUS_NO_MEMORY};
    return -1;
}
char* URLDecode(char* text) noexcept {
    record("URLDecode(" + quoted(text) + ")");
    return text;
}
char* qlxstrpbrk(const char* text, const char* set) noexcept {
    return const_cast<char*>(strpbrk(text, set));
}

WSTransport* WSInit(int a, int b, int c, int d, int e) noexcept {
    const Reply reply =
        answered("WSInit", std::to_string(a) + std::to_string(b) + std::to_string(c) +
                               std::to_string(d) + std::to_string(e));
    auto* transport = reply.status == 0 ? static_cast<WSTransport*>(calloc(1, 1)) : nullptr;
    if (transport == nullptr) {
        *__cr_errno_location() = reply.status != 0 ? reply.status : uint32_t{CR_STATUS_NO_MEMORY};
    }
    return transport;
}
void WSShutdown(WSTransport* transport) noexcept {
    record("WSShutdown()");
    *__cr_errno_location() = 0xBAD;
    free(transport);
}
uint32_t WSSetOpt(WSTransport*, const WSOption* options, uint32_t count) noexcept {
    std::string out;
    for (uint32_t i = 0; i < count; ++i)
        out += (i == 0 ? "" : ", ") + optionText(options[i]);
    return answered("WSSetOpt", out).status;
}
uint32_t WSSetOptVa(WSTransport* transport, ...) noexcept {
    std::string out;
    va_list pairs;
    va_start(pairs, transport);
    for (uint32_t code = 0; (code = va_arg(pairs, uint32_t)) != 0;)
        out += std::to_string(code) + " " + std::to_string(va_arg(pairs, int64_t)) + ", ";
    va_end(pairs);
    return answered("WSSetOptVa", out + "0").status;
}
uint32_t WSRequestExt(WSTransport*, uint32_t service, WSResult* result, ...) noexcept {
    va_list list;
    va_start(list, result);
    const std::string arguments = std::to_string(service) + stateOf(result) + parameters(list);
    va_end(list);
    return fill(result, answered("WSRequestExt", arguments));
}
uint32_t WSRequestPOST(WSTransport*, uint32_t service, WSResult* result, uint32_t dataselection,
                       const char* body, const char* action) noexcept {
    return fill(result, answered("WSRequestPOST", std::to_string(service) + stateOf(result) + ", " +
                                                      std::to_string(dataselection) + ", " +
                                                      quoted(body) + ", " + quoted(action)));
}
uint32_t WSArchMode(WSTransport*) noexcept {
    return answered("WSArchMode", "", false).status;
}
int64_t WSGetResponseTimeout(const WSTransport*) noexcept {
    return answered("WSGetResponseTimeout", "", false).status;
}
int64_t WSGetLastUseTime(const WSTransport*) noexcept {
    return time(nullptr) - answered("WSGetLastUseTime", "", false).status;
}
int64_t WSGetReconnectTimeout(const WSTransport*) noexcept {
    return answered("WSGetReconnectTimeout", "", false).status;
}
