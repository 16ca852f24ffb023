// kspool-agent expire: images are taken from the server, their records and their POs.
//
// Invariants:
//  1. The record of an image goes first, so that an expire which ends early leaves POs without a
//     record (invariant 2 of query.h), which nobody takes for an image. Expiring it again takes the
//     rest.
//  2. A server that refuses to delete the record, because the image is still to be kept, keeps all
//     of its POs too.
//  3. By age, the newest complete image of a client and policy stays unless it is asked for: a
//     machine whose recording has stopped unnoticed would otherwise lose its last image. What runs
//     that ended early have left is expired as images are, by the time of the newest PO: a run that
//     still goes on has one that is newer than any sensible age.
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

/// Expires and reports. kNothing when there is nothing to expire; after a failure with an image,
/// which is reported, the others are expired all the same.
tool::ExitCode expire(const ExpireOptions& options);

}  // namespace agent

#endif
