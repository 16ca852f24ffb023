// The command-line options of every program that opens a session.
#ifndef TOOLS_SHARED_SESSION_OPTIONS_H
#define TOOLS_SHARED_SESSION_OPTIONS_H

#include <CLI/CLI.hpp>

#include "tools/shared/session.h"

namespace pool {

/// Text that an unset variable of a script did not leave empty, and that the library takes.
CLI::Validator textUpTo(size_t longest);

void addSessionOptions(CLI::App& app, SessionOptions& session);

}  // namespace pool

#endif
