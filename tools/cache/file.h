// A cache file as a stream of bytes: what is in it, and what is wrong with it.
#ifndef TOOLS_CACHE_FILE_H
#define TOOLS_CACHE_FILE_H

#include <array>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "platform/support.h"
#include "tools/shared/cache.h"

namespace cache {

inline constexpr char kProgram[] = "kspool-cache";

using tool::kRecordSize;

struct Damage {
    const char* kind;  ///< header, checksum, type, types, partial
    uint64_t offset;   ///< where in the file
    std::string text;
};

struct FileReport {
    std::string path;
    std::string name;     ///< the path as a terminal may show it
    std::string trouble;  ///< why it could not be opened or read; the rest is then incomplete
    uint64_t size = 0;
    uint64_t headerSize = 0;  ///< the platform's affair, so it is found out
    QLXMagic header{};
    uint32_t checksum = 0;  ///< of what follows the header
    uint64_t records = 0;
    std::array<uint64_t, 256> recordsOfType{};
    std::vector<Damage> damage;
    bool refused = false;  ///< KSCacheLoad() would not take it
};

/// Reads a file once, in bounded memory.
FileReport inspect(const std::string& path);

/// The same, with all that is wrong named on stderr.
FileReport inspectAloud(const std::string& path);

/// kExitOk when the file can be loaded, kExitNo when it is damaged beyond that, kExitTrouble when
/// it could not be read.
int loadability(const FileReport& file);

nlohmann::ordered_json damageJson(const FileReport& file);

}  // namespace cache

#endif
