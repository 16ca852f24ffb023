// The calls below /__admin/ that answer with JSON, one row each.
#ifndef SANDBOX_HTTP_CALLS_H
#define SANDBOX_HTTP_CALLS_H

#include <string>

#include "sandbox/http/state.h"
#include "sandbox/request.h"

namespace sandbox {

/// Makes the call at `path`, the part of the URL after /__admin/, with a query and a JSON body. A
/// failure is a 400 or 404 with {"error": TEXT}. Takes State::mutex.
Answer administrate(State& state, const std::string& method, const std::string& path,
                    const std::string& query, const std::string& body) noexcept;

}  // namespace sandbox

#endif
