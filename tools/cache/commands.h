// The subcommands. Each returns the program's exit code.
#ifndef TOOLS_CACHE_COMMANDS_H
#define TOOLS_CACHE_COMMANDS_H

#include <cstdint>
#include <string>
#include <vector>

namespace cache {

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

int stat(const Options& options);
int verify(const Options& options);
int dump(const Options& options);
int diff(const Options& options);
int shape(const Options& options);
int shrink(const Options& options);

}  // namespace cache

#endif
