// The page of /__admin/: page.html, which is built into the program.
#ifndef SANDBOX_HTTP_PAGE_H
#define SANDBOX_HTTP_PAGE_H

#include "sandbox/request.h"

namespace sandbox {

/// The page with its content security policy. The policy allows only the page's one script and one
/// style, by their digests; a script from anywhere else does not run.
Answer page();

}  // namespace sandbox

#endif
