#include "sandbox/http/wire.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string_view>

#include "sandbox/store/characters.h"

namespace sandbox {
namespace {

Message message(std::string head, const std::string& body, uint64_t bodyBytes) {
    Message made;
    made.bytes = head.size() + bodyBytes;
    made.text = std::move(head);
    made.text.append(body, 0, kKeptMessage);
    if (made.text.size() > kKeptMessage) made.text.resize(kKeptMessage);
    return made;
}

/// "Basic dXNlcg==" becomes "Basic ***"; a value that does not begin with a word and a blank
/// becomes
/// "***".
std::string masked(std::string_view credentials) {
    const std::string_view scheme = credentials.substr(0, credentials.find_first_of(" \t"));
    const bool word = scheme.size() < credentials.size() &&
                      std::all_of(scheme.begin(), scheme.end(), isLetterOrDigit);
    return word ? std::string(scheme) + " ***" : "***";
}

/// Compares a header's name, ignoring blanks that some clients put before the colon.
bool isNamed(std::string_view name, const char* wanted) {
    name = name.substr(0, name.find_last_not_of(" \t") + 1);
    return name.size() == strlen(wanted) && strncasecmp(name.data(), wanted, name.size()) == 0;
}

/// No action has a parameter "password", but a client may send one by mistake.
void maskPasswords(std::string& text) {
    constexpr std::string_view kName = "password=";
    for (size_t at = text.find(kName); at != std::string::npos; at = text.find(kName, at)) {
        at += kName.size();
        text.replace(at, std::min(text.find_first_of("& \r\n", at), text.size()) - at, "***");
    }
}

MHD_Result appendHeader(void* closure, MHD_ValueKind /*kind*/, const char* name,
                        const char* value) noexcept {
    try {
        auto& head = *static_cast<std::string*>(closure);
        const std::string_view given = value != nullptr ? value : "";
        const bool secret = isNamed(name, MHD_HTTP_HEADER_AUTHORIZATION) ||
                            isNamed(name, MHD_HTTP_HEADER_PROXY_AUTHORIZATION);
        head.append(name).append(": ");
        if (secret) {
            head.append(masked(given));
        } else {
            head.append(given);
        }
        head.append("\r\n");
        return MHD_YES;
    } catch (...) {
        return MHD_NO;
    }
}

}  // namespace

Message requestMessage(MHD_Connection* connection, const Request& request, const std::string& uri,
                       uint64_t bodyBytes) {
    std::string head = request.method + " " + uri + " HTTP/1.1\r\n";
    MHD_get_connection_values(connection, MHD_HEADER_KIND, appendHeader, &head);
    Message made = message(head + "\r\n", request.body, bodyBytes);
    maskPasswords(made.text);
    return made;
}

Message answerMessage(unsigned status, const std::string& lines, const std::string& body,
                      uint64_t bodyBytes) {
    const std::string first =
        "HTTP/1.1 " + std::to_string(status) + " " + MHD_get_reason_phrase_for(status) + "\r\n";
    return message(first + lines + "\r\n", body, bodyBytes);
}

std::string httpDate() {
    static constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const time_t now = time(nullptr);
    tm parts{};
    gmtime_r(&now, &parts);
    char text[64];
    snprintf(text, sizeof text, "%s, %02d %s %d %02d:%02d:%02d GMT", kDays[parts.tm_wday],
             parts.tm_mday, kMonths[parts.tm_mon], parts.tm_year + 1900, parts.tm_hour,
             parts.tm_min, parts.tm_sec);
    return text;
}

}  // namespace sandbox
