// The password: reads it from its source, and leaves no copy.
//
// Invariants:
//  1. Outside the library, a Secret holds the only copy of the password: it is read byte by byte,
//     since a buffered stream would keep another copy.
//  2. The Secret, and the environment variable that the password may have come from, are wiped.
#ifndef TOOLS_SHARED_SECRET_H
#define TOOLS_SHARED_SECRET_H

#include <string>

#include "common/secret.h"

namespace tool {

/// As many characters as KS_OPT_PASSWORD accepts.
using Secret = kspool::SecretText<255>;

/// Reads the password from the first line of a file ("-": standard input), or without a file from
/// $KSPOOL_PASSWORD, which is wiped and unset in any case. Throws Failure with kUsage for a source
/// that cannot be used. Having no password is not a failure.
void takePassword(const std::string& file, Secret& secret);

}  // namespace tool

#endif
