// The subcommands. Each returns the program's exit code.
#ifndef TOOLS_POOL_COMMANDS_H
#define TOOLS_POOL_COMMANDS_H

#include <cstdint>
#include <string>
#include <vector>

#include "tools/pool_session.h"

namespace pool {

struct Options {
    SessionOptions session;
    std::vector<std::string> paths;
    std::string source;
    std::string destination;
    uint32_t count = 3;  ///< of pings
    bool recursive = false;
    bool json = false;
};

int list(const Options& options);
int makeDirectories(const Options& options);
int copy(const Options& options);
int move(const Options& options);
int remove(const Options& options);

int time(const Options& options);
int ping(const Options& options);

}  // namespace pool

#endif
