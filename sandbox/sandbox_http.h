// Requests and answers over HTTP.
#ifndef SANDBOX_SANDBOX_HTTP_H
#define SANDBOX_SANDBOX_HTTP_H

#include <microhttpd.h>

#include <optional>

#include "sandbox/sandbox_alarm.h"
#include "sandbox/sandbox_state.h"

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

/// Sends an answer as its fault, if there is one, wants it. MHD_NO closes the connection.
MHD_Result deliver(MHD_Connection* connection, Alarm& alarm, Answer answer, const Fault* fault);

/// Whether anything of an answer with this fault is HTTP.
bool isAnswered(const Fault* fault);

}  // namespace sandbox

#endif
