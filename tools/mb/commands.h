// The subcommands. Each returns the program's exit code, or throws tool::Failure.
#ifndef TOOLS_MB_COMMANDS_H
#define TOOLS_MB_COMMANDS_H

#include <cstdint>
#include <string>
#include <vector>

#include "tools/mb/filter.h"
#include "tools/shared/failure.h"
#include "tools/shared/session.h"

namespace mb {

using tool::ExitCode;

/// The names of an image, and the values that are set for it.
struct ImageOptions {
    std::string client, policy, name;
    int32_t parent = 0;
    int32_t wantedParent = -1;  ///< -1: any
    int32_t flags = 0;
    uint64_t time = 0;  ///< 0: now, or any
    int64_t retention = -1;
    int64_t worm = 0;
};

struct Options {
    tool::SessionOptions session;
    std::vector<std::string> paths;
    std::string source;
    std::string destination;
    uint32_t count = 3;  ///< of pings
    uint32_t dataselection = 0;
    CriterionValues criteria;
    ImageOptions image;
    int32_t retries = 0;
    bool keep = false;
    bool countOnly = false;
    bool recursive = false;
    bool json = false;
};

ExitCode list(const Options& options);
ExitCode makeDirectories(const Options& options);
ExitCode copy(const Options& options);
ExitCode move(const Options& options);
ExitCode remove(const Options& options);

ExitCode time(const Options& options);
ExitCode ping(const Options& options);

ExitCode addPOs(const Options& options);
ExitCode importPOs(const Options& options);
ExitCode expirePOs(const Options& options);
ExitCode findPOs(const Options& options);

ExitCode setImage(const Options& options);
ExitCode lastImages(const Options& options);
ExitCode deleteImage(const Options& options);
ExitCode imageRetention(const Options& options);
ExitCode imagePolicy(const Options& options);
ExitCode hvxTag(const Options& options);

}  // namespace mb

#endif
