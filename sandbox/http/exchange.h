// Receiving a request: libmicrohttpd's callbacks.
//
// For each request, libmicrohttpd calls on its one thread: beginExchange() with the first line;
// continueExchange() after the head, for each piece of the body, at the end of the body, and again
// after each suspension; endExchange() when the answer was sent or the connection has ended. No
// exception may pass through its C frames.
#ifndef SANDBOX_HTTP_EXCHANGE_H
#define SANDBOX_HTTP_EXCHANGE_H

#include <microhttpd.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "sandbox/faults.h"
#include "sandbox/http/alarm.h"
#include "sandbox/http/connections.h"
#include "sandbox/http/logins.h"
#include "sandbox/http/state.h"
#include "sandbox/log.h"
#include "sandbox/request.h"

namespace sandbox {

/// The closure of all callbacks.
struct Service {
    State& state;
    Alarm& alarm;
    Logins& logins;
    Connections& connections;
};

/// One request, from its first line to the end of its answer. Owned by libmicrohttpd's request
/// between beginExchange() and endExchange(). The callbacks are called repeatedly for one request;
/// the flags ensure that each step is done once.
struct Exchange {
    Request request;
    std::string uri;         ///< as in the first line
    uint64_t bodyBytes = 0;  ///< that arrived
    std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    LogEntry log;
    std::optional<Fault> fault;
    Login login;
    bool begun = false;      ///< the head was read
    bool open = false;       ///< Core::open() was called, and Core::decide() was not
    bool described = false;  ///< `log` is filled, and a fault was taken for the request
};

// REQUIRES: `service` is a Service that outlives the daemon.
void* beginExchange(void* service, const char* uri, MHD_Connection* connection) noexcept;
MHD_Result continueExchange(void* service, MHD_Connection* connection, const char* url,
                            const char* method, const char* version, const char* data, size_t* size,
                            void** exchange) noexcept;
void endExchange(void* service, MHD_Connection* connection, void** exchange,
                 MHD_RequestTerminationCode code) noexcept;

}  // namespace sandbox

#endif
