// Everything below /__admin/: a page, and the calls by which the page, tests and scripts control
// and inspect the server.
//
// The calls need no login, so pages of other sites must not reach them through a browser on this
// machine:
//  - A foreign Origin is refused: browsers send the header with scripted requests and each POST.
//  - A Host that is neither a name of the loopback interface nor that of the configured URL is
//    refused. Otherwise a site could make its own name resolve to 127.0.0.1 (DNS rebinding), and
//    its Origin would be the server's own.
//  - Calls that change something need Content-Type: application/json, which a page of another site
//    cannot send without a CORS preflight.
#ifndef SANDBOX_HTTP_ADMIN_H
#define SANDBOX_HTTP_ADMIN_H

#include <microhttpd.h>

#include <string>

#include "sandbox/http/alarm.h"
#include "sandbox/http/state.h"
#include "sandbox/request.h"

namespace sandbox {

constexpr char kAdminFolder[] = "/__admin/";

/// Answers a request below kAdminFolder. REQUIRES: libmicrohttpd's thread, without State::mutex.
MHD_Result administer(MHD_Connection* connection, State& state, Alarm& alarm,
                      const Request& request);

}  // namespace sandbox

#endif
