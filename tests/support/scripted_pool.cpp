// The scripted platform's configuration reader, network functions and PO library.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>

#include "cr_status.h"
#include "platform/ini.h"
#include "platform/net.h"
#include "platform/po.h"
#include "platform/status.h"
#include "platform/support.h"
#include "tests/support/scripted_platform.h"
#include "tests/support/system_calls.h"

const char _qlx_config_section_string_table_[256] = {};
const char _qlx_config_entry_string_table_[4096] = {};

namespace scripted {
namespace {

constexpr uint32_t kInjected = 2077;  ///< the status of a call that fails on demand

std::map<std::string, std::deque<Reply>> replies;
std::map<std::pair<int, int>, std::string> values;
bool configurationIsRecorded = true;

template <typename... Values>
void recordReading(const char* call, const Values&... arguments) {
    if (configurationIsRecorded) record(std::string(call) + "(" + listed(arguments...) + ")");
}

const std::string* configured(const char* section, const char* entry) {
    const auto value = values.find({static_cast<int>(section - _qlx_config_section_string_table_),
                                    static_cast<int>(entry - _qlx_config_entry_string_table_)});
    return value == values.end() ? nullptr : &value->second;
}

int text(const char* call, const char* section, const char* entry, char* destination,
         int maxCharacters, const char* defaultValue, const char* file) {
    recordReading(call, nameOffsets(section, entry), maxCharacters, defaultValue, file);
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
    recordReading(call, nameOffsets(section, entry), defaultValue, file);
    const std::string* value = configured(section, entry);
    *result = value != nullptr ? static_cast<Integer>(std::stoll(*value)) : defaultValue;
    return value != nullptr ? 1 : 0;
}

}  // namespace

std::string nameOffsets(const char* section, const char* entry) {
    return listed(section - _qlx_config_section_string_table_,
                  entry - _qlx_config_entry_string_table_);
}

Reply answered(const std::string& call, const std::string& arguments, bool mayFail) {
    record(call + "(" + arguments + ")");
    if (mayFail && calls::failsOnDemand(calls::kPlatform)) return {.status = kInjected};
    std::deque<Reply>& queue = replies[call];
    if (queue.empty()) return {};
    const Reply next = queue.front();
    queue.pop_front();
    if (next.meanwhile) next.meanwhile();
    return next;
}

std::deque<Reply>& queued(const std::string& call) {
    return replies[call];
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
    recordReading("InifileNoticeA", file, nameOffsets(section, entry), unused, message);
}
void InifileValueNoticeA(const char* file, const char* section, const char* entry, int64_t value,
                         const char* message) noexcept {
    recordReading("InifileValueNoticeA", file, nameOffsets(section, entry), value, message);
}

int NetExtractHostAndPort(const char* url, char* buffer, size_t size, int unused) noexcept {
    record("NetExtractHostAndPort(" + listed(url, size, unused) + ")");
    const size_t length = strcspn(url, "/");
    qlxstrcpy(buffer, url, std::min(size, length + 1));
    return static_cast<int>(strlen(buffer));
}

char* CRConfigLocate(const char* kind, char* buffer, size_t size) noexcept {
    const Reply reply = answered("CRConfigLocate", listed(kind, size));
    if (reply.status == 0) return strcpy(buffer, "/located.cfg");
    *__cr_errno_location() = reply.status;
    return nullptr;
}
int qlx_access(const char* path, int mode) noexcept {
    const Reply reply = answered("qlx_access", listed(path, mode));
    errno = reply.status == kInjected ? EIO : static_cast<int>(reply.status);
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
    const Reply reply = answered("POSetFromNonConstString", shown(line));
    po->text = reply.status == 0 ? strdup(line) : nullptr;
    if (po->text != nullptr) return 0;
    *__cr_errno_location() = reply.status != 0 ? reply.status : uint32_t{CR_STATUS_NO_MEMORY};
    return -1;
}
const char* POGetField(const PO* po, uint32_t index, size_t* length) noexcept {
    if (index > 0 || po->text == nullptr) return nullptr;
    *length = strlen(po->text);
    return po->text;
}
char* URLDecode(char* text) noexcept {
    record("URLDecode(" + shown(text) + ")");
    return text;
}
char* qlxstrpbrk(const char* text, const char* set) noexcept {
    return const_cast<char*>(strpbrk(text, set));
}
