// The subcommands. Each returns the program's exit code.
#ifndef TOOLS_MB_COMMANDS_H
#define TOOLS_MB_COMMANDS_H

#include <cstdint>
#include <string>
#include <vector>

#include "tools/mb/filter.h"
#include "tools/shared/session.h"

namespace pool {

/// What names an image, and what is set of it.
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
    SessionOptions session;
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

int list(const Options& options);
int makeDirectories(const Options& options);
int copy(const Options& options);
int move(const Options& options);
int remove(const Options& options);

int time(const Options& options);
int ping(const Options& options);

int addPOs(const Options& options);
int importPOs(const Options& options);
int expirePOs(const Options& options);
int findPOs(const Options& options);

int setImage(const Options& options);
int lastImages(const Options& options);
int deleteImage(const Options& options);
int imageRetention(const Options& options);
int imagePolicy(const Options& options);
int hvxTag(const Options& options);

}  // namespace pool

#endif
