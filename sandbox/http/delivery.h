// Answers on their way out, with the faults that were ordered.
#ifndef SANDBOX_HTTP_DELIVERY_H
#define SANDBOX_HTTP_DELIVERY_H

#include <microhttpd.h>

#include "sandbox/faults.h"
#include "sandbox/http/alarm.h"

namespace sandbox {

/// Sends an answer as its fault, if there is one, wants it. MHD_NO closes the connection.
MHD_Result deliver(MHD_Connection* connection, Alarm& alarm, Answer answer, const Fault* fault);

/// Whether anything of an answer with this fault is HTTP.
bool isAnswered(const Fault* fault);

}  // namespace sandbox

#endif
