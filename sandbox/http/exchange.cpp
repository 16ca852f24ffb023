#include "sandbox/http/exchange.h"

#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "sandbox/core.h"
#include "sandbox/http/admin.h"
#include "sandbox/http/delivery.h"
#include "sandbox/http/wire.h"

namespace sandbox {
namespace {

struct Endpoint {
    const char* service;
    const char* method;
};

constexpr Endpoint kEndpoints[] = {
    {"metabase", "POST"}, {"spa", "POST"}, {"keepalive", "POST"}, {"arch", "GET"}};

constexpr std::string_view kServices = "/ws/";

std::string header(MHD_Connection* connection, const char* name) {
    const char* value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
    return value != nullptr ? value : "";
}

Answer plain(unsigned status, const char* text) {
    Answer answer;
    answer.status = status;
    answer.body = text;
    return answer;
}

void readHead(Exchange& exchange, State& state, MHD_Connection* connection, const char* method) {
    const std::string& prefix = state.prefix;
    Request& request = exchange.request;
    request.method = method;
    request.contentType = header(connection, MHD_HTTP_HEADER_CONTENT_TYPE);
    request.authorization = header(connection, MHD_HTTP_HEADER_AUTHORIZATION);
    request.id = header(connection, "Request-Id");
    const bool admin = request.path.starts_with(kAdminFolder);
    if (!prefix.empty() && !admin) {
        if (request.path.starts_with(prefix + "/")) {
            request.path.erase(0, prefix.size());
        } else {
            request.path.clear();
        }
    }
    if (request.path.starts_with(kServices))
        request.service = request.path.substr(kServices.size());
    exchange.begun = true;
    if (request.service.empty()) return;
    const std::lock_guard<std::mutex> lock(state.mutex);
    state.core.open(request.id);
    exchange.open = true;
}

/// Beyond the limit the body is dropped and the rest is read and ignored, so that the answer still
/// reaches a client that sends all of its request before it reads.
void readBody(Request& request, uint64_t limit, const char* data, size_t size) {
    if (request.tooLarge || size > limit - request.body.size()) {
        request.tooLarge = true;
        std::string().swap(request.body);
        return;
    }
    request.body.append(data, size);
}

const Endpoint* findEndpoint(const std::string& service) {
    for (const Endpoint& endpoint : kEndpoints) {
        if (service == endpoint.service) return &endpoint;
    }
    return nullptr;
}

/// Concatenates the blocks of a long answer, for a fault that changes complete answers.
void gather(Answer& answer) {
    for (std::string block = answer.more(); !block.empty(); block = answer.more())
        answer.body += block;
    answer.more = nullptr;
}

/// Ends the open state of a transmission. REQUIRES: the caller holds State::mutex, and keeps it
/// until the request is answered, if it is.
void decide(Exchange& exchange, State& state) {
    if (std::exchange(exchange.open, false)) state.core.decide(exchange.request.id);
}

/// On the first call, describes the request and takes a fault for it. Then suspends the connection
/// for the fault's delay, and until there is a verdict on the login; libmicrohttpd calls again
/// after each. True when there is nothing to wait for.
bool ready(Service& service, Exchange& exchange, MHD_Connection* connection) {
    State& state = service.state;
    if (!exchange.described) {
        exchange.described = true;
        Core::describe(exchange.request, exchange.log);
        exchange.fault = state.faults.take(exchange.log.action);
        const uint64_t delay = exchange.fault ? exchange.fault->delay() : 0;
        if (delay > 0 && service.alarm.suspend(connection, delay)) return false;
    }
    // A fault that refuses needs the verdict as well, since it may be dropped and the core answer.
    if (exchange.fault && !exchange.fault->kind->carriedOut && !exchange.fault->kind->refuses)
        return true;
    Login& login = exchange.login;
    Accounts& accounts = state.core.accounts();
    if (login.verdict) {
        accounts.remember(exchange.request.authorization, *login.verdict);
    } else if (!login.asked) {
        login.verdict = accounts.verdict(exchange.request.authorization);
        if (!login.verdict)
            return !service.logins.suspend(connection, exchange.request.authorization, login);
    }
    return true;
}

void logRequest(State& state, Exchange& exchange, MHD_Connection* connection, const Fault* fault) {
    LogEntry& log = exchange.log;
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    log.milliseconds =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - exchange.start)
            .count();
    log.time = std::chrono::duration<double>(now).count() - log.milliseconds / 1000;
    log.request = requestMessage(connection, exchange.request, exchange.uri, exchange.bodyBytes);
    if (fault != nullptr) log.fault = fault->kind->name;
    const std::string action = log.action;
    const uint64_t number = state.log.add(std::move(log));
    if (fault != nullptr) state.faults.struck(number, *fault, action);
}

/// Handles a request under /ws/: carries it out, applies its fault, and queues the answer.
MHD_Result serve(Service& service, Exchange& exchange, MHD_Connection* connection) {
    State& state = service.state;
    const std::lock_guard<std::mutex> lock(state.mutex);
    if (!ready(service, exchange, connection)) return MHD_YES;
    decide(exchange, state);
    if (exchange.fault && exchange.fault->kind->refuses &&
        state.core.mayBeDone(exchange.request.id)) {
        exchange.fault.reset();
    }
    const Fault* fault = exchange.fault ? &*exchange.fault : nullptr;
    Answer answer;
    if (fault == nullptr || fault->kind->carriedOut) {
        if (!exchange.login.verdict) return MHD_NO;
        if (fault != nullptr) state.core.moveClock(fault->jump());
        answer = state.core.answer(exchange.request, *exchange.login.verdict, exchange.log);
    }
    if (answer.more != nullptr && fault != nullptr) gather(answer);
    if (fault != nullptr) fault->kind->change(*fault, state.core.reporter(), answer);
    if (isAnswered(fault)) {
        exchange.log.status = answer.status;
        exchange.log.event = answer.event;
    }
    const MHD_Result queued =
        deliver(connection, service.alarm, std::move(answer), fault, &exchange.log.answer);
    logRequest(state, exchange, connection, fault);
    return queued;
}

MHD_Result finish(Service& service, Exchange& exchange, MHD_Connection* connection) {
    const Request& request = exchange.request;
    if (request.path.starts_with(kAdminFolder)) {
        return administer(connection, service.state, service.alarm, request);
    }
    const Endpoint* endpoint = findEndpoint(request.service);
    if (endpoint == nullptr)
        return deliver(connection, service.alarm, plain(404, "no such service\n"), nullptr);
    if (request.method != endpoint->method) {
        Answer answer = plain(405, "not with this method\n");
        answer.headers.emplace_back("Allow", endpoint->method);
        return deliver(connection, service.alarm, std::move(answer), nullptr);
    }
    return serve(service, exchange, connection);
}

}  // namespace

void* beginExchange(void* /*service*/, const char* uri, MHD_Connection* /*connection*/) noexcept {
    try {
        auto exchange = std::make_unique<Exchange>();
        const std::string_view text = uri;
        const size_t mark = text.find('?');
        exchange->uri = text;
        exchange->request.path = text.substr(0, mark);
        if (mark != std::string_view::npos) exchange->request.query = text.substr(mark + 1);
        return exchange.release();
    } catch (const std::exception&) {
        return nullptr;
    }
}

MHD_Result continueExchange(void* closure, MHD_Connection* connection, const char* /*url*/,
                            const char* method, const char* /*version*/, const char* data,
                            size_t* size, void** closureOfRequest) noexcept {
    auto& service = *static_cast<Service*>(closure);
    auto* exchange = static_cast<Exchange*>(*closureOfRequest);
    if (exchange == nullptr) return MHD_NO;
    try {
        if (!exchange->begun) {
            readHead(*exchange, service.state, connection, method);
            return MHD_YES;
        }
        if (*size > 0) {
            readBody(exchange->request, service.state.bodyLimit, data, *size);
            exchange->bodyBytes += *size;
            *size = 0;
            return MHD_YES;
        }
        service.connections.busy(connection);
        return finish(service, *exchange, connection);
    } catch (...) {
        return MHD_NO;
    }
}

void endExchange(void* closure, MHD_Connection* connection, void** closureOfRequest,
                 MHD_RequestTerminationCode /*code*/) noexcept {
    static_cast<Service*>(closure)->connections.idle(connection);
    const std::unique_ptr<Exchange> exchange(static_cast<Exchange*>(*closureOfRequest));
    *closureOfRequest = nullptr;
    if (exchange == nullptr || !exchange->open) return;
    State& state = static_cast<Service*>(closure)->state;
    const std::lock_guard<std::mutex> lock(state.mutex);
    decide(*exchange, state);
}

}  // namespace sandbox
