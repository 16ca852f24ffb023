// The subcommands. Each returns the program's exit code, or throws tool::Failure.
#ifndef TOOLS_CACHE_COMMANDS_H
#define TOOLS_CACHE_COMMANDS_H

#include <cstdint>
#include <string>
#include <vector>

#include "tools/shared/failure.h"

namespace cache {

using tool::ExitCode;

struct Options {
    std::vector<std::string> files;
    std::string out;
    uint64_t limit = 0;     ///< MiB
    uint32_t bits = 0;      ///< 0: from the number of records
    uint32_t areaSize = 0;  ///< 0: from the number of records
    bool sorted = false;
    bool raw = false;
    bool json = false;
};

ExitCode stat(const Options& options);
ExitCode verify(const Options& options);
ExitCode dump(const Options& options);
ExitCode diff(const Options& options);
ExitCode shape(const Options& options);
ExitCode shrink(const Options& options);

}  // namespace cache

#endif
