// The transport's stand-in: its life, its options and what can be asked of it.
#include <fcntl.h>
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

#include "platform/standin/standin_ws_int.h"
#include "platform/status.h"

namespace ws {
namespace {

constexpr size_t kLongestText = 4095;
constexpr uint32_t kMostPairs = 8;
constexpr uint32_t kNoArchMode = 0xFFFFFFFF;

enum class Kind : uint8_t { Unknown, Text, Integer };

Kind kindOf(uint32_t code) {
    switch (code) {
        case WS_OPT_SERVER_URL:
        case WS_OPT_LOGIN:
        case WS_OPT_PASSWORD:
        case WS_OPT_SSL_KEY_LOCATION:
            return Kind::Text;
        case WS_OPT_7:
        case WS_OPT_8:
        case WS_OPT_RESPONSE_TIMEOUT:
        case WS_OPT_RECONNECT_TIMEOUT:
            return Kind::Integer;
        default:
            return Kind::Unknown;
    }
}

uint32_t check(const WSOption& option) {
    const Kind kind = kindOf(option.code);
    if (kind == Kind::Unknown) return CR_STATUS_INVALID_PARAMETER;
    if (kind == Kind::Integer) return CR_STATUS_OK;
    if (option.value.text == nullptr) return CR_STATUS_INVALID_PARAMETER;
    // Behind a colon, the server would take the rest for the password.
    const bool colon = strchr(option.value.text, ':') != nullptr;
    if (option.code == WS_OPT_LOGIN && colon) return CR_STATUS_INVALID_PARAMETER;
    return strnlen(option.value.text, kLongestText + 1) > kLongestText ? CR_STATUS_LIMIT_EXCEEDED
                                                                       : CR_STATUS_OK;
}

void apply(Settings& settings, const WSOption& option) {
    switch (option.code) {
        case WS_OPT_SERVER_URL:
            settings.serverUrl = option.value.text;
            break;
        case WS_OPT_LOGIN:
            settings.login = option.value.text;
            break;
        case WS_OPT_PASSWORD:
            settings.password.set(option.value.text);
            break;
        case WS_OPT_SSL_KEY_LOCATION:
            settings.keyLocation = option.value.text;
            break;
        case WS_OPT_7:
            settings.option7 = option.value.number;
            break;
        case WS_OPT_8:
            settings.option8 = option.value.number;
            break;
        case WS_OPT_RESPONSE_TIMEOUT:
            settings.responseTimeout = option.value.number;
            break;
        default:
            settings.reconnectTimeout = std::max<int64_t>(option.value.number, 0);
            break;
    }
}

/// All records or none: they go to a copy, and nothing can fail once it is taken over.
uint32_t setOptions(WSTransport& transport, const WSOption* options, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
        if (const uint32_t bad = check(options[i])) return bad;
    }
    Settings next = transport.settings;
    for (uint32_t i = 0; i < count; ++i)
        apply(next, options[i]);
    Settings& now = transport.settings;
    if (next.serverUrl != now.serverUrl) transport.archKnown = false;
    now.serverUrl.swap(next.serverUrl);
    now.login.swap(next.login);
    now.password.swap(next.password);
    now.keyLocation.swap(next.keyLocation);
    now.option7 = next.option7;
    now.option8 = next.option8;
    now.responseTimeout = next.responseTimeout;
    now.reconnectTimeout = next.reconnectTimeout;
    transport.configured = false;
    return CR_STATUS_OK;
}

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
    if (transport->curl == nullptr) return nullptr;
    const ssize_t got = getrandom(&transport->idStart, sizeof transport->idStart, 0);
    if (got != static_cast<ssize_t>(sizeof transport->idStart)) return nullptr;
    transport->owner = getpid();
    transport->lastUse = time(nullptr);
    return transport;
}

/// In a child of the owner, whose copies of connections must not say good-bye on its behalf.
void muteConnections(const WSTransport& transport) {
    const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (const Socket& one : transport.sockets) {
        struct stat status {};
        const bool ours =
            fstat(one.fd, &status) == 0 && S_ISSOCK(status.st_mode) && status.st_ino == one.inode;
        if (!ours) continue;
        if (nowhere < 0 || dup2(nowhere, one.fd) < 0) close(one.fd);
    }
    if (nowhere >= 0) close(nowhere);
}

uint32_t askArchMode(WSTransport& transport) {
    Text text;
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

void Secret::wipe() noexcept {
    text_.resize(text_.capacity());
    explicit_bzero(text_.data(), text_.size());
}

void Secret::set(const char* text) {
    std::string next(text);
    wipe();
    text_.swap(next);
    explicit_bzero(next.data(), next.size());
}

}  // namespace ws

using namespace ws;

WSTransport* WSInit(int, int, int, int, int) noexcept {
    std::unique_ptr<WSTransport> transport;
    uint32_t failed = WS_STATUS_FAILED;
    try {
        transport = makeTransport();
    } catch (const std::bad_alloc&) {
        failed = CR_STATUS_NO_MEMORY;
    } catch (const std::exception&) {
    }
    if (transport == nullptr) *__cr_errno_location() = failed;
    return transport.release();
}

void WSShutdown(WSTransport* transport) noexcept {
    if (transport == nullptr) return;
    if (transport->owner != getpid()) muteConnections(*transport);
    transport->curl.reset();  // while its callbacks still have the rest
    delete transport;
}

uint32_t WSSetOpt(WSTransport* transport, const WSOption* options, uint32_t count) noexcept {
    try {
        return setOptions(*transport, options, count);
    } catch (const std::exception&) {
        return CR_STATUS_NO_MEMORY;
    }
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
        if (kindOf(code) == Kind::Text) {
            options[count].value.text = va_arg(pairs, const char*);
        } else if (kindOf(code) == Kind::Integer) {
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
    uint32_t status = CR_STATUS_NO_MEMORY;
    try {
        status = askArchMode(*transport);
    } catch (const std::exception&) {
    }
    if (status == CR_STATUS_OK) return transport->archMode;
    *__cr_errno_location() = status;
    return kNoArchMode;
}
