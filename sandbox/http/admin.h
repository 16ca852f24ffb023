// The functions under /__admin/, without HTTP.
#ifndef SANDBOX_HTTP_ADMIN_H
#define SANDBOX_HTTP_ADMIN_H

#include <string>

#include "sandbox/http/state.h"

namespace sandbox {

constexpr char kAdminFolder[] = "/__admin/";

/// Carries a function of /__admin/ out; `path` is what follows that. Locks. Throws nothing.
Answer administrate(State& state, const std::string& method, const std::string& path,
                    const std::string& body) noexcept;

}  // namespace sandbox

#endif
