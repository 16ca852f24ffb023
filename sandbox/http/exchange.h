// Requests on their way in: libmicrohttpd's callbacks.
#ifndef SANDBOX_HTTP_EXCHANGE_H
#define SANDBOX_HTTP_EXCHANGE_H

#include <microhttpd.h>

#include <optional>

#include "sandbox/http/alarm.h"
#include "sandbox/http/state.h"

namespace sandbox {

/// What the callbacks share.
struct Service {
    State& state;
    Alarm& alarm;
};

/// One request on its way, from its first line to the end of its answer.
struct Exchange {
    Request request;
    LogEntry log;
    std::optional<Fault> fault;
    bool begun = false;
    bool described = false;
};

// Callbacks for libmicrohttpd, whose closure is a Service.
void* beginExchange(void* service, const char* uri, MHD_Connection* connection) noexcept;
MHD_Result continueExchange(void* service, MHD_Connection* connection, const char* url,
                            const char* method, const char* version, const char* data, size_t* size,
                            void** exchange) noexcept;
void endExchange(void* service, MHD_Connection* connection, void** exchange,
                 MHD_RequestTerminationCode code) noexcept;

}  // namespace sandbox

#endif
