// kspool-agent expire: an image's record and its POs are taken from the server.
//
// The record goes first (invariant 2 of query.h). An expire that ends early leaves POs without a
// record, which nobody takes for an image, and the next one takes the rest.
#ifndef TOOLS_AGENT_EXPIRE_H
#define TOOLS_AGENT_EXPIRE_H

#include "tools/agent/image.h"
#include "tools/shared/failure.h"
#include "tools/shared/session.h"

namespace agent {

struct ExpireOptions {
    tool::SessionOptions session;
    ImageName name;
    bool json = false;
};

/// kNothing when the server knows neither a record nor a PO of the image.
tool::ExitCode expire(const ExpireOptions& options);

}  // namespace agent

#endif
