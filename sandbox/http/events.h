// Server-sent events of /__admin/events: what happens, for the page.
//
// The reader of such an answer looks five times a second for news, and sends those of a fifth of a
// second together. To wake it for each request would cost the server a write each, more than a
// twentieth of the request itself.
#ifndef SANDBOX_HTTP_EVENTS_H
#define SANDBOX_HTTP_EVENTS_H

#include <microhttpd.h>

#include "sandbox/http/alarm.h"
#include "sandbox/http/state.h"

namespace sandbox {

/// Queues the endless answer; 503 when there are eight already. REQUIRES: libmicrohttpd's thread,
/// without State::mutex.
MHD_Result streamEvents(MHD_Connection* connection, State& state, Alarm& alarm);

}  // namespace sandbox

#endif
