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

/// What is left out of the paths: --exclude, --one-file-system.
void addLimits(CLI::App& command, std::vector<std::string>& exclude, bool& oneFileSystem);

/// The paths and what is left out of them: PATH, --files-from, --null, --exclude,
/// --one-file-system. `verb` is what is done with the files, "scan".
void addWalkOptions(CLI::App& command, WalkOptions& options, const std::string& verb);

/// Reads the list of --files-from into options.listed. Throws Failure when it cannot be read.
void readPathList(WalkOptions& options);

/// --jobs; 0 when it is not given.
void addJobs(CLI::App& command, uint32_t& jobs);

/// --digest, whose text stays empty when it is not given: defaultDigest() is for this case.
void addDigest(CLI::App& command, std::string& digest);

/// The digest of the agent's configuration file (empty: where the library finds it), "sha256" when
/// there is none. To be called before a Session is made: it takes the library's messages meanwhile.
std::string defaultDigest(const std::string& config);

/// Adds the options of a data selection, client and policy.
void addClient(CLI::App& command, ImageName& name, bool patterns);

/// Adds the options that name an image, and returns that for the image itself. Patterns are for
/// finding only: with one, expire would match other images as well.
CLI::Option* addImageName(CLI::App& command, ImageName& name, bool patterns);

}  // namespace agent

#endif
