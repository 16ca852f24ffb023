#include "sandbox/http/admin.h"

#include <algorithm>
#include <iterator>
#include <string_view>

#include "sandbox/http/calls.h"
#include "sandbox/http/delivery.h"
#include "sandbox/http/events.h"
#include "sandbox/http/page.h"

namespace sandbox {
namespace {

std::string header(MHD_Connection* connection, const char* name) {
    const char* value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
    return value != nullptr ? value : "";
}

/// True for the names of the loopback interface and for the configured host.
bool isOurs(std::string_view host, const std::string& configured) {
    const std::string_view names[] = {"127.0.0.1", "localhost", "[::1]", configured};
    return std::any_of(std::begin(names), std::end(names), [&](std::string_view name) {
        return !name.empty() &&
               (host == name || (host.starts_with(name) && host[name.size()] == ':'));
    });
}

Answer plain(unsigned status, const char* text) {
    Answer answer;
    answer.status = status;
    answer.body = text;
    return answer;
}

/// Refuses a request that a page of another site may have sent; status 200 if it did not.
Answer refusal(MHD_Connection* connection, const State& state, const Request& request) {
    const std::string host = header(connection, MHD_HTTP_HEADER_HOST);
    if (!isOurs(host, state.host))
        return plain(403, "not under this name: use 127.0.0.1 or localhost\n");
    const std::string origin = header(connection, MHD_HTTP_HEADER_ORIGIN);
    const std::string own = state.url.substr(0, state.url.find("//") + 2) + host;
    if (!origin.empty() && origin != own) return plain(403, "not for pages of other sites\n");
    // An image or frame on a page of another site sends no Origin, and could occupy a stream of
    // events.
    const bool foreign = header(connection, "Sec-Fetch-Site") == "cross-site" &&
                         header(connection, "Sec-Fetch-Mode") != "navigate";
    if (foreign) return plain(403, "not for pages of other sites\n");
    if (request.method != "GET" && !hasMediaType(request.contentType, "application/json"))
        return plain(415, "changes need Content-Type: application/json\n");
    return request.tooLarge ? plain(413, "too large\n") : Answer{};
}

}  // namespace

MHD_Result administer(MHD_Connection* connection, State& state, Alarm& alarm,
                      const Request& request) {
    Answer answer = refusal(connection, state, request);
    const std::string path = request.path.substr(sizeof kAdminFolder - 1);
    if (answer.status != 200) return deliver(connection, alarm, std::move(answer), nullptr);
    if (request.method == "GET" && path == "events") return streamEvents(connection, state, alarm);
    answer = request.method == "GET" && path.empty()
                 ? page()
                 : administrate(state, request.method, path, request.query, request.body);
    return deliver(connection, alarm, std::move(answer), nullptr);
}

}  // namespace sandbox
