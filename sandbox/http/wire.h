// The messages of a request as they stand on the wire, for the log. The credentials of an
// Authorization header are masked, and the body is shown as text: neither the lengths of chunks nor
// the encryption of TLS.
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

/// The head of an answer with these lines between the first and the empty one, and its body.
/// `bodyBytes` is the body's length.
Message answerMessage(unsigned status, const std::string& lines, const std::string& body,
                      uint64_t bodyBytes);

/// The value of a Date header, in the one language that HTTP has.
std::string httpDate();

}  // namespace sandbox

#endif
