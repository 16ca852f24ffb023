// The command-line options of every program that opens a session.
#ifndef TOOLS_SHARED_SESSION_OPTIONS_H
#define TOOLS_SHARED_SESSION_OPTIONS_H

#include <CLI/CLI.hpp>

#include "tools/shared/session.h"

namespace tool {

/// Refuses texts that are too long for the library, and empty ones, which an unset variable in a
/// script would give.
CLI::Validator textUpTo(size_t longest);

/// Decimal digits: the parser would wrap a negative number around, and cut one that is too large.
CLI::Validator numberUpTo(uint64_t most);

void addSessionOptions(CLI::App& app, SessionOptions& session);

}  // namespace tool

#endif
