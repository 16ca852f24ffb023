// The status library's stand-in: the slot, the texts of statuses, the location of the configuration
// file and the types of the pool. The only state is the slot, one word per thread, so any thread
// may call any function.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "cr_status.h"
#include "platform/events.h"
#include "platform/status.h"
#include "platform/support.h"
#include "platform/ws.h"

namespace {

thread_local uint32_t threadStatus = CR_STATUS_OK;

struct StatusText {
    uint32_t status;
    const char* text;
};

constexpr StatusText kTexts[] = {
    {CR_STATUS_OK, "success"},
    {CR_STATUS_EXISTS, "already present"},
    {CR_STATUS_NOT_FOUND, "not found"},
    {CR_STATUS_REMOTE_ERROR, "the server reported an error"},
    {CR_STATUS_INVALID_PARAMETER, "a required argument is missing or not valid"},
    {CR_STATUS_LIMIT_EXCEEDED, "too many options, or a text that is too long"},
    {CR_STATUS_BUSY, "the cache is being walked, or its file is held"},
    {CR_STATUS_NULL_OUTPUT, "no place for the result was given"},
    {CR_STATUS_NO_MEMORY, "not enough memory"},
    {CR_STATUS_SEEK_FAILED, "seeking in the file failed"},
    {CR_STATUS_READ_FAILED, "reading the file failed"},
    {CR_STATUS_CORRUPT, "the checksum does not match"},
    {CR_STATUS_NULL_HANDLE, "no handle was given"},
    {CR_STATUS_BAD_HANDLE, "not a valid handle, file or answer"},
    {CR_STATUS_INVALID_VALUE, "the option does not take this value"},
    {CR_STATUS_PERMISSION_DENIED, "the server denied permission"},
    {CR_STATUS_BAD_RESPONSE, "the server's answer is not the expected one"},
    {WS_STATUS_FAILED, "the transport failed"},
    {WS_STATUS_NO_SERVER, "no server URL is set, or it is not an http or https URL"},
    {WS_STATUS_PLAINTEXT, "plain http to another machine is not allowed"},
    {WS_STATUS_FORKED, "the transport belongs to the parent process"},
    {WS_STATUS_NO_CONNECT, "the server cannot be reached"},
    {WS_STATUS_TIMED_OUT, "the server did not answer in time"},
    {WS_STATUS_CUT, "the connection ended before the answer was complete"},
    {WS_STATUS_TLS, "no secure connection could be made"},
    {WS_STATUS_BAD_ANSWER, "the server's answer is not of the protocol"},
    {WS_STATUS_TOO_LARGE, "the server's answer is too large"},
    {WS_STATUS_CONNECT_TIMED_OUT, "no connection to the server could be made in time"},
    {WS_STATUS_ABORTED, "the request was aborted"},
#define KSPOOL_EVENT_ROW(name, code, http, text) {POOL_EVENT_##name, (text)},
    KSPOOL_EVENTS(KSPOOL_EVENT_ROW)
#undef KSPOOL_EVENT_ROW
};

/// Stores a reason in the slot and returns NULL, for CRConfigLocate().
char* locateFailed(uint32_t status) {
    threadStatus = status;
    return nullptr;
}

/// An environment variable; NULL when it is not set or empty.
const char* setVariable(const char* name) {
    const char* value = getenv(name);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

/// Joins the two into `buffer`; false when they do not fit.
bool joinPath(char* buffer, size_t size, const char* folder, const char* rest) {
    const int length = snprintf(buffer, size, "%s%s", folder, rest);
    return length >= 0 && static_cast<size_t>(length) < size;
}

}  // namespace

uint32_t* __cr_errno_location() noexcept {
    return &threadStatus;
}

const char* CRStatusToStringA(uint32_t status) noexcept {
    const auto* row = std::find_if(std::begin(kTexts), std::end(kTexts),
                                   [=](const StatusText& t) { return t.status == status; });
    if (row != std::end(kTexts)) return row->text;
    if (status > CR_STATUS_SYSTEM_BASE && status < CR_STATUS_TRANSPORT_BASE) {
        const char* text = strerrordesc_np(static_cast<int>(status - CR_STATUS_SYSTEM_BASE));
        if (text != nullptr) return text;
    }
    return "unknown status";
}

uint32_t _crMapError(const char* function, const char* sourceFile, int line) noexcept {
    const int error = errno == 0 ? EIO : errno;
    const uint32_t status = CR_STATUS_SYSTEM_BASE + static_cast<uint32_t>(error);
    if (__atomic_load_n(__qlxlog_trace_location(), __ATOMIC_RELAXED) != 0) {
        __TraceA("%s (%s:%d): system error %d: %s", function, sourceFile, line, error,
                 CRStatusToStringA(status));
    }
    return status;
}

char* CRConfigLocate(const char* kind, char* buffer, size_t size) noexcept {
    if (strcmp(kind, "Agent") != 0) return locateFailed(CR_STATUS_NOT_FOUND);
    if (const char* path = setVariable("KSPOOL_AGENT_CONFIG")) {
        return joinPath(buffer, size, path, "") ? buffer : locateFailed(CR_STATUS_LIMIT_EXCEEDED);
    }
    for (const char* folder : {setVariable("XDG_CONFIG_HOME"), "/etc"}) {
        if (folder == nullptr) continue;
        if (!joinPath(buffer, size, folder, "/kspool/agent.cfg")) {
            return locateFailed(CR_STATUS_LIMIT_EXCEEDED);
        }
        if (access(buffer, F_OK) == 0) return buffer;
    }
    return locateFailed(CR_STATUS_NOT_FOUND);
}

int CRFPTypeIsValid(uint32_t type) noexcept {
    return type >= CR_FP_MD5 && type <= CR_FP_SHA256;
}

int CRDOTypeIsValid(uint8_t type) noexcept {
    return type <= CR_DO_LAST;
}

const char* CRFPDigestToString_r(const void* fingerprint, uint32_t type, char* buffer,
                                 size_t size) noexcept {
    if (fingerprint == nullptr || buffer == nullptr || size == 0) return "";
    constexpr char kDigits[] = "0123456789abcdef";
    const auto* bytes = static_cast<const uint8_t*>(fingerprint);
    const size_t digits = std::min<size_t>(type == CR_FP_SHA256 ? 64 : 32, size - 1);
    for (size_t i = 0; i < digits; ++i) {
        buffer[i] = kDigits[i % 2 == 0 ? bytes[i / 2] >> 4 : bytes[i / 2] & 15];
    }
    buffer[digits] = '\0';
    return buffer;
}
