// An answer on its way out, spoilt by the fault that was taken for its request.
#ifndef SANDBOX_HTTP_DELIVERY_H
#define SANDBOX_HTTP_DELIVERY_H

#include <microhttpd.h>

#include "sandbox/faults.h"
#include "sandbox/http/alarm.h"
#include "sandbox/log.h"
#include "sandbox/request.h"

namespace sandbox {

/// Queues an answer for sending, in the way of its fault (NULL: none), and tells in `sent`, which
/// may be NULL, what goes out. Returns the result of the callback: MHD_NO closes the connection.
/// REQUIRES: a fault gets whole answers, without `more`.
MHD_Result deliver(MHD_Connection* connection, Alarm& alarm, Answer answer, const Fault* fault,
                   Message* sent = nullptr);

/// False when the fault sends no HTTP at all; the status of the answer means nothing then.
bool isAnswered(const Fault* fault);

}  // namespace sandbox

#endif
