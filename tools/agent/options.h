// The command line: each command adds its options in a file of its own.
#ifndef TOOLS_AGENT_OPTIONS_H
#define TOOLS_AGENT_OPTIONS_H

#include <CLI/CLI.hpp>
#include <cstdint>
#include <string>

#include "tools/agent/image.h"
#include "tools/agent/walk.h"
#include "tools/shared/failure.h"

namespace agent {

void addScan(CLI::App& app, tool::ExitCode& code);
void addRecord(CLI::App& app, tool::ExitCode& code);
void addVerify(CLI::App& app, tool::ExitCode& code);
void addImages(CLI::App& app, tool::ExitCode& code);
void addFind(CLI::App& app, tool::ExitCode& code);
void addExpire(CLI::App& app, tool::ExitCode& code);

/// Options that several commands have.
CLI::Option* addSegmentSize(CLI::App& command, uint64_t& size);
CLI::Validator segmentSizeRange();

/// The options that exclude parts of the paths: --exclude, --one-file-system.
void addLimits(CLI::App& command, std::vector<std::string>& exclude, bool& oneFileSystem);

/// The paths and their exclusions: PATH, --files-from, --null, --exclude, --one-file-system. `verb`
/// says what is done with the files, such as "scan".
void addWalkOptions(CLI::App& command, WalkOptions& options, const std::string& verb);

/// Reads the list of --files-from into options.listed. Throws Failure when it cannot be read.
void readPathList(WalkOptions& options);

/// --jobs; 0 when it is not given.
void addJobs(CLI::App& command, uint32_t& jobs);

/// --digest; the text stays empty if it is not given, and defaultDigest() applies.
void addDigest(CLI::App& command, std::string& digest);

/// The digest of the agent's configuration file (empty path: where the library finds it), "sha256"
/// if there is none. To be called before a Session is made, since both take the library's messages.
std::string defaultDigest(const std::string& config);

/// Adds the options of a data selection, client and policy.
void addClient(CLI::App& command, ImageName& name, bool patterns);

/// Adds the options that name an image, and returns the one for the image itself. `patterns` is for
/// queries only: with a pattern, expire would match other images as well.
CLI::Option* addImageName(CLI::App& command, ImageName& name, bool patterns);

}  // namespace agent

#endif
