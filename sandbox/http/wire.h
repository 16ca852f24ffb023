// The messages of a request as on the wire, for the log. The credentials in an Authorization header
// are masked. Bodies are shown as text, without chunk lengths and TLS encryption.
#ifndef SANDBOX_HTTP_WIRE_H
#define SANDBOX_HTTP_WIRE_H

#include <microhttpd.h>

#include <cstdint>
#include <string>

#include "sandbox/log.h"
#include "sandbox/request.h"

namespace sandbox {

/// A message is kept up to this length.
constexpr size_t kKeptMessage = 8192;

/// The head of a request, and its body as far as it was kept. `bodyBytes` is the body's length.
Message requestMessage(MHD_Connection* connection, const Request& request, const std::string& uri,
                       uint64_t bodyBytes);

/// The head of an answer, with `lines` as its header lines, and its body.
/// `bodyBytes` is the body's length.
Message answerMessage(unsigned status, const std::string& lines, const std::string& body,
                      uint64_t bodyBytes);

/// The value of a Date header, whatever the locale.
std::string httpDate();

}  // namespace sandbox

#endif
