// kspool-agent expire: deletes images from the server, records and POs.
//
// Invariants:
//  1. The record of an image is deleted first: an expire that ends early then leaves POs without a
//     record (invariant 2 of query.h), which do not count as an image. Expiring the image again
//     deletes the rest.
//  2. If the server refuses to delete the record, because the image must still be kept, all of its
//     POs are kept too.
//  3. By age, the newest complete image of a client and policy is kept unless the user asks
//     otherwise: otherwise a machine whose recording has stopped unnoticed would lose its last
//     image. What incomplete runs have left is expired as well, by the time of the newest PO; in a
//     run that is still going on, this time is newer than any sensible age.
#ifndef TOOLS_AGENT_EXPIRE_H
#define TOOLS_AGENT_EXPIRE_H

#include <cstdint>

#include "tools/agent/image.h"
#include "tools/shared/failure.h"
#include "tools/shared/session.h"

namespace agent {

struct ExpireOptions {
    tool::SessionOptions session;
    ImageName name;           ///< with an empty image: those older than `age`
    uint64_t age = 0;         ///< seconds
    bool evenNewest = false;  ///< by age: the newest one too
    bool dryRun = false;      ///< report only
    bool json = false;
};

/// Expires and reports. kNothing if there is nothing to expire. A failure with one image is
/// reported, and the others are expired nevertheless.
tool::ExitCode expire(const ExpireOptions& options);

}  // namespace agent

#endif
