// The command-line options of every program that opens a session.
#ifndef TOOLS_SHARED_SESSION_OPTIONS_H
#define TOOLS_SHARED_SESSION_OPTIONS_H

#include <CLI/CLI.hpp>

#include "tools/shared/session.h"

namespace tool {

/// Refuses empty texts, as an unset variable of a script leaves them, and texts that are longer
/// than the library takes.
CLI::Validator textUpTo(size_t longest);

void addSessionOptions(CLI::App& app, SessionOptions& session);

}  // namespace tool

#endif
