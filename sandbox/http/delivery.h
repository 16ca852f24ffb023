// Sending an answer, disrupted by the fault that was taken for its request.
#ifndef SANDBOX_HTTP_DELIVERY_H
#define SANDBOX_HTTP_DELIVERY_H

#include <microhttpd.h>

#include "sandbox/faults.h"
#include "sandbox/http/alarm.h"
#include "sandbox/log.h"
#include "sandbox/request.h"

namespace sandbox {

/// Queues an answer as its fault demands (NULL: no fault), and stores in `sent`, which may be NULL,
/// what is sent. Returns the result for libmicrohttpd's callback: MHD_NO closes the connection.
/// REQUIRES: with a fault, the answer is complete, without `more`.
MHD_Result deliver(MHD_Connection* connection, Alarm& alarm, Answer answer, const Fault* fault,
                   Message* sent = nullptr);

/// False if the fault sends no HTTP at all; the status of the answer is then meaningless.
bool isAnswered(const Fault* fault);

}  // namespace sandbox

#endif
