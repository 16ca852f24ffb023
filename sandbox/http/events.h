// Server-sent events of /__admin/events, by which the page follows requests and faults.
//
// The stream polls for events five times a second and sends them together. Waking it for each
// request would cost a write per request, which is more than 5 % of the cost of the request itself.
#ifndef SANDBOX_HTTP_EVENTS_H
#define SANDBOX_HTTP_EVENTS_H

#include <microhttpd.h>

#include "sandbox/http/alarm.h"
#include "sandbox/http/state.h"

namespace sandbox {

/// Queues the endless answer; 503 if there are eight already. REQUIRES: libmicrohttpd's thread,
/// without State::mutex.
MHD_Result streamEvents(MHD_Connection* connection, State& state, Alarm& alarm);

}  // namespace sandbox

#endif
