// The scripted transport: requests are shown to answered(), which says what they bring.
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "cr_status.h"
#include "platform/status.h"
#include "platform/ws.h"
#include "tests/support/scripted_platform.h"

using namespace scripted;

namespace {

Reply kept;  ///< owns the texts of the last answer

const char* known(const std::optional<std::string>& text) {
    return text.has_value() ? text->c_str() : nullptr;
}

/// The parameters of a request, each taken in the width that its name has.
std::string parameters(va_list& list) {
    static const std::map<std::string, char> kWidths = {
        {"recursive", 'u'}, {"dataselection", 'u'}, {"dsid", 'u'},
        {"parentid", 'i'},  {"flags", 'i'},         {"datetime", 'U'},
        {"dcid", 'U'},      {"wormflags", 'I'},     {"retention", 'I'},
    };
    std::string out;
    while (const char* name = va_arg(list, const char*)) {
        const auto width = kWidths.find(name);
        out += std::string(", ") + name + "=";
        switch (width == kWidths.end() ? 's' : width->second) {
            case 'u':
                out += shown(va_arg(list, uint32_t));
                break;
            case 'i':
                out += shown(va_arg(list, int32_t));
                break;
            case 'U':
                out += shown(va_arg(list, uint64_t));
                break;
            case 'I':
                out += shown(va_arg(list, int64_t));
                break;
            default:
                out += shown(va_arg(list, const char*));
        }
    }
    return out;
}

/// Makes a request, fills its result record and returns the status.
uint32_t request(const char* call, WSResult* result, uint32_t service, const std::string& rest) {
    static const WSResult kZeroed{};
    const bool isZeroed = memcmp(result, &kZeroed, sizeof kZeroed) == 0;
    kept = answered(call, shown(service) + (isZeroed ? "" : ", result not zeroed") + rest);
    result->eventCode = kept.eventCode;
    result->data = kept.data.has_value() ? strdup(kept.data->c_str()) : nullptr;
    result->severity = known(kept.severity);
    result->serverAddress = known(kept.serverAddress);
    result->sourceApplication = known(kept.sourceApplication);
    result->description = known(kept.description);
    const bool isLost = kept.data.has_value() && result->data == nullptr;
    return isLost ? uint32_t{CR_STATUS_NO_MEMORY} : kept.status;
}

}  // namespace

/// Made and released as the allocations are, so that one that is lost shows.
struct WSTransport {
    char byte;
};

WSTransport* WSInit(int a, int b, int c, int d, int e) noexcept {
    const Reply reply = answered("WSInit", listed(a, b, c, d, e));
    auto* transport = reply.status == 0 ? static_cast<WSTransport*>(calloc(1, 1)) : nullptr;
    if (transport == nullptr) {
        *__cr_errno_location() = reply.status != 0 ? reply.status : uint32_t{CR_STATUS_NO_MEMORY};
    }
    return transport;
}
void WSShutdown(WSTransport* transport) noexcept {
    answered("WSShutdown", "", false);
    *__cr_errno_location() = 0xBAD;
    free(transport);
}
uint32_t WSSetOpt(WSTransport*, const WSOption* options, uint32_t count) noexcept {
    std::string out;
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t code = options[i].code;
        const bool isText = code == WS_OPT_SERVER_URL || code == WS_OPT_LOGIN ||
                            code == WS_OPT_PASSWORD || code == WS_OPT_SSL_KEY_LOCATION;
        out += (i == 0 ? "" : ", ") + shown(code) + " " +
               (isText ? shown(options[i].value.text) : shown(options[i].value.number));
    }
    return answered("WSSetOpt", out).status;
}
uint32_t WSSetOptVa(WSTransport* transport, ...) noexcept {
    std::string out;
    va_list pairs;
    va_start(pairs, transport);
    for (uint32_t code = 0; (code = va_arg(pairs, uint32_t)) != 0;)
        out += shown(code) + " " + shown(va_arg(pairs, int64_t)) + ", ";
    va_end(pairs);
    return answered("WSSetOptVa", out + "0").status;
}
uint32_t WSRequestExt(WSTransport*, uint32_t service, WSResult* result, ...) noexcept {
    va_list list;
    va_start(list, result);
    const std::string rest = parameters(list);
    va_end(list);
    return request("WSRequestExt", result, service, rest);
}
uint32_t WSRequestPOST(WSTransport*, uint32_t service, WSResult* result, uint32_t dataselection,
                       const char* body, const char* action) noexcept {
    return request("WSRequestPOST", result, service, ", " + listed(dataselection, body, action));
}
uint32_t WSArchMode(WSTransport*) noexcept {
    return answered("WSArchMode", "", false).status;
}
int64_t WSGetResponseTimeout(const WSTransport*) noexcept {
    return answered("WSGetResponseTimeout", "", false).status;
}
uint32_t WSAbort(WSTransport*) noexcept {
    return answered("WSAbort", "", false).status;
}
void WSLastEvent(const WSTransport*, WSEventRecord* record) noexcept {
    static Reply last;
    last = answered("WSLastEvent", "", false);
    *record = {last.eventCode,
               last.status,
               3,
               "id",
               known(last.severity),
               known(last.serverAddress),
               known(last.sourceApplication),
               known(last.description)};
}
void WSStatistics(const WSTransport*, WSStatisticsRecord* record) noexcept {
    answered("WSStatistics", "", false);
    *record = {1, 2, 3, 4, 5, 6, {7}};
    record->latencies[WS_LATENCIES - 1] = 8;
}
int64_t WSGetLastUseTime(const WSTransport*) noexcept {
    return time(nullptr) - answered("WSGetLastUseTime", "", false).status;
}
int64_t WSGetReconnectTimeout(const WSTransport*) noexcept {
    return answered("WSGetReconnectTimeout", "", false).status;
}
