// The page of /__admin/: page.html, which is built into the program.
#ifndef SANDBOX_HTTP_PAGE_H
#define SANDBOX_HTTP_PAGE_H

#include "sandbox/request.h"

namespace sandbox {

/// The page with its content security policy. The policy names the digests of its one script and
/// one style: no other script runs, wherever it comes from.
Answer page();

}  // namespace sandbox

#endif
