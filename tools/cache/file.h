// A cache file as a stream of bytes: its header, its records, its damage.
#ifndef TOOLS_CACHE_FILE_H
#define TOOLS_CACHE_FILE_H

#include <array>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "platform/support.h"
#include "tools/shared/cache.h"
#include "tools/shared/failure.h"

namespace cache {

using tool::kRecordSize;

struct Damage {
    const char* kind;  ///< header, checksum, type, types, partial
    uint64_t offset;   ///< where in the file
    std::string text;
};

struct FileReport {
    std::string path;
    std::string name;  ///< the path as a terminal may show it
    /// Why the file could not be opened or read; the other members are then incomplete.
    std::optional<std::string> trouble;
    uint64_t size = 0;
    uint64_t headerSize = 0;  ///< as read, since the platform decides how long headers are
    QLXMagic header{};
    uint32_t checksum = 0;  ///< of what follows the header
    uint64_t records = 0;
    std::array<uint64_t, 256> recordsOfType{};
    std::vector<Damage> damage;
    bool refused = false;  ///< KSCacheLoad() would not take it
};

/// Reads a file once, in bounded memory.
FileReport inspect(const std::string& path);

/// Inspects a file, and names all of its damage and trouble on stderr.
FileReport inspectAndReport(const std::string& path);

/// The exit code of a program that must load the file: kOk if KSCacheLoad() accepts it, kNo if it
/// would refuse it as damaged, kTrouble if the file could not be read.
tool::ExitCode loadingCode(const FileReport& file);

nlohmann::ordered_json damageJson(const FileReport& file);

}  // namespace cache

#endif
