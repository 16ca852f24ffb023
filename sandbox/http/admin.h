// The functions under /__admin/: tests and people steer and inspect the server with them.
#ifndef SANDBOX_HTTP_ADMIN_H
#define SANDBOX_HTTP_ADMIN_H

#include <string>

#include "sandbox/http/state.h"
#include "sandbox/request.h"

namespace sandbox {

constexpr char kAdminFolder[] = "/__admin/";

/// Calls the function at `path`, the part of the URL after kAdminFolder, with a JSON body. A
/// failure is a 400 or 404 with {"error": TEXT}. Takes State::mutex.
Answer administrate(State& state, const std::string& method, const std::string& path,
                    const std::string& body) noexcept;

}  // namespace sandbox

#endif
