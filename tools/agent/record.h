// The PO by which a file is recorded on the server.
#ifndef TOOLS_AGENT_RECORD_H
#define TOOLS_AGENT_RECORD_H

#include <sys/stat.h>

#include <cstdint>
#include <string>

#include "tools/agent/image.h"

namespace agent {

/// Fields of a PO that the agent reads again; fields count from 1.
enum class POField : uint32_t {
    kImage = 8,
    kFolder = 9,
    kName = 10,
    kSize = 16,
    kMtime = 17,
};

/// One file that was read.
struct FileRecord {
    std::string path;
    struct stat status {};
    std::string digest;  ///< over the digests of its segments, hexadecimal
    uint64_t segments = 0;
    uint64_t newSegments = 0;
};

/// A text as a field may hold it: `|`, `%` and control characters as %XX.
std::string fieldText(const std::string& text);

/// Undoes fieldText().
std::string plainText(std::string field);

/// The line of a file, with its LF.
std::string poLine(const ImageName& name, const FileRecord& file, int64_t now);

}  // namespace agent

#endif
