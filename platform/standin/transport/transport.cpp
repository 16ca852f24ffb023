// The transport's stand-in: creation, options, queries and shutdown. The invariants of the record
// are in transport.h.
#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <mutex>
#include <new>
#include <type_traits>

#include "common/descriptor_above.h"
#include "platform/standin/transport/transport.h"
#include "platform/status.h"

namespace ws {
namespace {

constexpr uint32_t kMostPairs = 8;  // of WSSetOptVa()
constexpr uint32_t kNoArchMode = 0xFFFFFFFF;

/// The member of Settings that an option sets.
struct TextRow {
    uint32_t code;
    Secret Settings::*text;
};
struct NumberRow {
    uint32_t code;
    int64_t Settings::*number;
};

constexpr TextRow kTexts[] = {
    {WS_OPT_SERVER_URL, &Settings::serverUrl},
    {WS_OPT_LOGIN, &Settings::login},
    {WS_OPT_PASSWORD, &Settings::password},
    {WS_OPT_SSL_KEY_LOCATION, &Settings::keyLocation},
};
constexpr NumberRow kNumbers[] = {
    {WS_OPT_7, &Settings::option7},
    {WS_OPT_8, &Settings::option8},
    {WS_OPT_RESPONSE_TIMEOUT, &Settings::responseTimeout},
    {WS_OPT_RECONNECT_TIMEOUT, &Settings::reconnectTimeout},
};

/// The row of an option; NULL when the table has none.
template <typename Row, size_t size>
const Row* rowOf(const Row (&table)[size], uint32_t code) {
    const Row* row =
        std::find_if(table, table + size, [=](const Row& r) { return r.code == code; });
    return row != table + size ? row : nullptr;
}

uint32_t checkText(const WSOption& option) {
    const char* text = option.value.text;
    if (text == nullptr) return CR_STATUS_INVALID_PARAMETER;
    // HTTP Basic sends "login:password", so a server would split a login at its first colon.
    if (option.code == WS_OPT_LOGIN && strchr(text, ':') != nullptr) {
        return CR_STATUS_INVALID_PARAMETER;
    }
    return CR_STATUS_OK;
}

/// Applies all records or none: they are applied to a copy, whose assignment cannot fail. The
/// copy's Secrets are wiped.
uint32_t setOptions(WSTransport& transport, const WSOption* options, uint32_t count) {
    Settings next = transport.settings;
    for (uint32_t i = 0; i < count; ++i) {
        if (const TextRow* row = rowOf(kTexts, options[i].code)) {
            if (const uint32_t bad = checkText(options[i])) return bad;
            if (!(next.*row->text).set(options[i].value.text)) return CR_STATUS_LIMIT_EXCEEDED;
        } else if (const NumberRow* number = rowOf(kNumbers, options[i].code)) {
            next.*number->number = options[i].value.number;
        } else {
            return CR_STATUS_INVALID_PARAMETER;
        }
    }
    next.reconnectTimeout = std::max<int64_t>(next.reconnectTimeout, 0);
    Settings& now = transport.settings;
    if (next.serverUrl.view() != now.serverUrl.view()) transport.archKnown = false;
    static_assert(std::is_nothrow_copy_assignable_v<Settings>);
    now = next;
    transport.configured = false;
    return CR_STATUS_OK;
}

/// Calls curl_global_init() once, since concurrent calls are not allowed, and keeps the result for
/// all transports of the process.
bool globalInit() {
    static std::once_flag once;
    static CURLcode result = CURLE_FAILED_INIT;
    std::call_once(once, [] { result = curl_global_init(CURL_GLOBAL_DEFAULT); });
    return result == CURLE_OK;
}

std::unique_ptr<WSTransport> makeTransport() {
    if (!globalInit()) return nullptr;
    auto transport = std::make_unique<WSTransport>();
    transport->curl.reset(curl_easy_init());
    transport->multi.reset(curl_multi_init());
    if (transport->curl == nullptr || transport->multi == nullptr) return nullptr;
    transport->wake =
        kspool::Descriptor(kspool::aboveStandard(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)));
    if (transport->wake.get() < 0) return nullptr;
    const ssize_t got = getrandom(&transport->idStart, sizeof transport->idStart, 0);
    if (got != static_cast<ssize_t>(sizeof transport->idStart)) return nullptr;
    transport->owner = getpid();
    transport->lastUse = time(nullptr);
    return transport;
}

/// Called in a child of the owner. The child's descriptors refer to the parent's connections, where
/// the close_notify that libcurl sends would end the parent's TLS session. So each socket is
/// replaced by /dev/null, which discards the bytes, or closed if that fails.
void muteConnections(const WSTransport& transport) {
    const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (const Socket& one : transport.sockets) {
        if (!one.isOurs()) continue;
        if (nowhere < 0 || dup2(nowhere, one.fd) < 0) close(one.fd);
    }
    if (nowhere >= 0) close(nowhere);
}

/// Requests the architecture mode and remembers it. A valid answer is a number below kNoArchMode,
/// which WSArchMode() returns on failure, and optional line ends.
uint32_t askArchMode(WSTransport& transport) {
    kspool::OwnedText text;
    const uint32_t status = exchange(transport, {"/ws/arch", nullptr, nullptr, 0}, text);
    if (status != CR_STATUS_OK) return status;
    if (transport.event.code != 0) return CR_STATUS_REMOTE_ERROR;
    if (text == nullptr || strspn(text.get(), "0123456789") == 0) return WS_STATUS_BAD_ANSWER;
    char* end = nullptr;
    const unsigned long long mode = strtoull(text.get(), &end, 10);
    if (mode >= kNoArchMode || end[strspn(end, "\r\n")] != '\0') return WS_STATUS_BAD_ANSWER;
    transport.archMode = static_cast<uint32_t>(mode);
    transport.archKnown = true;
    return CR_STATUS_OK;
}

}  // namespace

uint32_t statusOfException() noexcept {
    try {
        throw;
    } catch (const std::bad_alloc&) {
        return CR_STATUS_NO_MEMORY;
    } catch (const std::exception& problem) {
        NoticeA(WS_STATUS_FAILED, "transport: %s", problem.what());
        return WS_STATUS_FAILED;
    }
}

}  // namespace ws

using namespace ws;

WSTransport* WSInit(int, int, int, int, int) noexcept {
    std::unique_ptr<WSTransport> transport;
    uint32_t failed = WS_STATUS_FAILED;
    try {
        transport = makeTransport();
    } catch (...) {
        failed = statusOfException();
    }
    if (transport == nullptr) *__cr_errno_location() = failed;
    return transport.release();
}

void WSShutdown(WSTransport* transport) noexcept {
    if (transport == nullptr) return;
    if (transport->owner != getpid()) muteConnections(*transport);
    // Release the handles first: closing the connections calls onClose(), which uses the record.
    transport->multi.reset();
    transport->curl.reset();
    delete transport;
}

uint32_t WSSetOpt(WSTransport* transport, const WSOption* options, uint32_t count) noexcept {
    return setOptions(*transport, options, count);
}

uint32_t WSSetOptVa(WSTransport* transport, ...) noexcept {
    WSOption options[kMostPairs];
    uint32_t count = 0;
    uint32_t bad = CR_STATUS_OK;
    va_list pairs;
    va_start(pairs, transport);
    for (uint32_t code = 0; bad == 0 && (code = va_arg(pairs, uint32_t)) != 0; ++count) {
        if (count == kMostPairs) {
            bad = CR_STATUS_LIMIT_EXCEEDED;
            break;
        }
        options[count].code = code;
        if (rowOf(kTexts, code) != nullptr) {
            options[count].value.text = va_arg(pairs, const char*);
        } else if (rowOf(kNumbers, code) != nullptr) {
            options[count].value.number = va_arg(pairs, int64_t);
        } else {
            bad = CR_STATUS_INVALID_PARAMETER;
        }
    }
    va_end(pairs);
    return bad != 0 ? bad : WSSetOpt(transport, options, count);
}

int64_t WSGetLastUseTime(const WSTransport* transport) noexcept {
    return transport->lastUse;
}
int64_t WSGetReconnectTimeout(const WSTransport* transport) noexcept {
    return transport->settings.reconnectTimeout;
}
int64_t WSGetResponseTimeout(const WSTransport* transport) noexcept {
    return transport->settings.responseTimeout;
}

int64_t WSGetOption(const WSTransport* transport, uint32_t code) noexcept {
    const Settings& s = transport->settings;
    return code == WS_OPT_7 ? s.option7 : code == WS_OPT_8 ? s.option8 : 0;
}

uint32_t WSArchMode(WSTransport* transport) noexcept {
    if (transport->archKnown) return transport->archMode;
    uint32_t status = CR_STATUS_OK;
    try {
        status = askArchMode(*transport);
    } catch (...) {
        status = statusOfException();
    }
    if (status == CR_STATUS_OK) return transport->archMode;
    *__cr_errno_location() = status;
    return kNoArchMode;
}

// These three are in the same file as WSInit(): the library refers to them weakly, and a weak
// reference alone would not make the linker take them from the archive.

uint32_t WSAbort(WSTransport* transport) noexcept {
    if (transport->owner != getpid()) return WS_STATUS_FORKED;
    const int savedErrno = errno;
    transport->aborted = true;
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(transport->wake.get(), &one, sizeof one);
    errno = savedErrno;
    return CR_STATUS_OK;
}

void WSLastEvent(const WSTransport* transport, WSEventRecord* record) noexcept {
    const Event& event = transport->event;
    const Trace& trace = transport->trace;
    *record = {event.code,
               trace.httpStatus,
               trace.attempts,
               nullIfEmpty(trace.id),
               nullIfEmpty(event.severity),
               nullIfEmpty(event.serverAddress),
               nullIfEmpty(event.sourceApplication),
               nullIfEmpty(event.description)};
}

void WSStatistics(const WSTransport* transport, WSStatisticsRecord* record) noexcept {
    *record = transport->statistics;
}
