// The transport's stand-in: the two calls that send requests. Their parameters are encoded for the
// wire (docs/wire-protocol.md), and the result is handed to the caller.
#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <iterator>
#include <new>

#include "platform/standin/transport/transport.h"

namespace ws {
namespace {

struct ServicePath {
    uint32_t service;
    const char* path;
};

constexpr ServicePath kServices[] = {
    {WS_SERVICE_METABASE, "/ws/metabase"},
    {WS_SERVICE_SPA, "/ws/spa"},
    {WS_SERVICE_KEEPALIVE, "/ws/keepalive"},
};

enum class Type : uint8_t { kText, kUint32, kInt32, kUint64, kInt64 };

struct Parameter {
    const char* name;
    Type type;
};

/// The types of parameters by name. A variadic list does not carry types, so the name of a
/// parameter decides how the value after it is read.
constexpr Parameter kParameters[] = {
    {"action", Type::kText},
    {"path", Type::kText},
    {"source", Type::kText},
    {"destination", Type::kText},
    {"data", Type::kText},
    {"filter", Type::kText},
    {"client", Type::kText},
    {"policy", Type::kText},
    {"imagename", Type::kText},
    {"dofp", Type::kText},
    {"appname", Type::kText},
    {"recursive", Type::kUint32},
    {"dataselection", Type::kUint32},
    {"dsid", Type::kUint32},
    {"parentid", Type::kInt32},
    {"flags", Type::kInt32},
    {"datetime", Type::kUint64},
    {"dcid", Type::kUint64},
    {"wormflags", Type::kInt64},
    {"retention", Type::kInt64},
};

/// Percent-encodes all but the unreserved characters of a URL. curl_easy_escape() fails for results
/// over 24 MB, which a list of POs can reach.
std::string escaped(const char* text) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    std::string out;
    for (; text != nullptr && *text != '\0'; ++text) {
        const auto byte = static_cast<unsigned char>(*text);
        const bool letter = (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z');
        if (letter || (byte >= '0' && byte <= '9') || strchr("-._~", byte) != nullptr) {
            out += *text;
        } else {
            out += {'%', kDigits[byte >> 4], kDigits[byte & 15]};
        }
    }
    return out;
}

std::string valueText(Type type, va_list& parameters) {
    switch (type) {
        case Type::kUint32:
            return std::to_string(va_arg(parameters, uint32_t));
        case Type::kInt32:
            return std::to_string(va_arg(parameters, int32_t));
        case Type::kUint64:
            return std::to_string(va_arg(parameters, uint64_t));
        case Type::kInt64:
            return std::to_string(va_arg(parameters, int64_t));
        default:
            return escaped(va_arg(parameters, const char*));
    }
}

/// Writes the parameters as a form. False for a name that is not in the table: the type of its
/// value is unknown, so the rest of the list cannot be read.
bool writeForm(va_list& parameters, std::string& form) {
    while (const char* name = va_arg(parameters, const char*)) {
        const auto* row =
            std::find_if(std::begin(kParameters), std::end(kParameters),
                         [=](const Parameter& p) { return strcmp(p.name, name) == 0; });
        if (row == std::end(kParameters)) return false;
        form += form.empty() ? "" : "&";
        form += name;
        form += '=';
        form += valueText(row->type, parameters);
    }
    return true;
}

const char* pathOf(uint32_t service) {
    const auto* row = std::find_if(std::begin(kServices), std::end(kServices),
                                   [=](const ServicePath& s) { return s.service == service; });
    return row != std::end(kServices) ? row->path : nullptr;
}

/// Sends a request and fills the result. The event's texts stay with the transport.
uint32_t send(WSTransport& transport, const Request& request, WSResult& result) {
    kspool::OwnedText text;
    const uint32_t status = exchange(transport, request, text);
    if (status != CR_STATUS_OK) return status;
    const Event& event = transport.event;
    result.eventCode = event.code;
    result.data = text.release();
    result.severity = nullIfEmpty(event.severity);
    result.serverAddress = nullIfEmpty(event.serverAddress);
    result.sourceApplication = nullIfEmpty(event.sourceApplication);
    result.description = nullIfEmpty(event.description);
    return CR_STATUS_OK;
}

}  // namespace
}  // namespace ws

using namespace ws;

uint32_t WSRequestExt(WSTransport* transport, uint32_t service, WSResult* result, ...) noexcept {
    *result = {};
    const char* path = pathOf(service);
    if (path == nullptr) return CR_STATUS_INVALID_PARAMETER;
    va_list parameters;
    va_start(parameters, result);
    uint32_t status = CR_STATUS_OK;
    try {
        std::string form;
        status = writeForm(parameters, form)
                     ? send(*transport,
                            {path, "application/x-www-form-urlencoded", form.data(), form.size()},
                            *result)
                     : uint32_t{CR_STATUS_INVALID_PARAMETER};
    } catch (...) {
        status = statusOfException();
    }
    va_end(parameters);
    return status;
}

uint32_t WSRequestPOST(WSTransport* transport, uint32_t service, WSResult* result,
                       uint32_t dataselection, const char* body, const char* action) noexcept {
    *result = {};
    const char* path = pathOf(service);
    if (path == nullptr) return CR_STATUS_INVALID_PARAMETER;
    try {
        const std::string target = std::string(path) + "?action=" + escaped(action) +
                                   "&dataselection=" + std::to_string(dataselection);
        if (body == nullptr) body = "";
        return send(*transport, {target.c_str(), "text/plain", body, strlen(body)}, *result);
    } catch (...) {
        return statusOfException();
    }
}
