// The command line: each command adds its options in a file of its own.
#ifndef TOOLS_AGENT_OPTIONS_H
#define TOOLS_AGENT_OPTIONS_H

#include <CLI/CLI.hpp>
#include <cstdint>

#include "tools/agent/image.h"
#include "tools/shared/failure.h"

namespace agent {

void addScan(CLI::App& app, tool::ExitCode& code);
void addRecord(CLI::App& app, tool::ExitCode& code);
void addVerify(CLI::App& app, tool::ExitCode& code);
void addImages(CLI::App& app, tool::ExitCode& code);
void addFind(CLI::App& app, tool::ExitCode& code);
void addExpire(CLI::App& app, tool::ExitCode& code);

/// Options that several commands have.
void addSegmentSize(CLI::App& command, uint64_t& size);

/// Adds the options that name an image, and returns that for the image itself. Patterns are for
/// finding only: with one, expire would match other images as well.
CLI::Option* addImageName(CLI::App& command, ImageName& name, bool patterns);

}  // namespace agent

#endif
