// What the server is told of files: one PO each, in lists of bounded size.
#ifndef TOOLS_AGENT_RECORD_H
#define TOOLS_AGENT_RECORD_H

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tools/agent/backup.h"
#include "tools/agent/segments.h"

namespace agent {

/// Fields of a PO that the agent reads again; fields count from 1.
enum POField : uint32_t {
    kImageField = 8,
    kFolderField = 9,
    kNameField = 10,
    kSizeField = 16,
    kMtimeField = 17,
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

/// The other way.
std::string plainText(std::string field);

/// The line of a file, with its LF.
std::string poLine(const ImageName& name, const FileRecord& file, int64_t now);

/// The fields of a line.
std::vector<std::string> fieldsOf(const std::string& line);

/// How many POs of an image the server knows. Returns the exit code of the query.
int countFiles(const ImageName& name, pool::Session& session, uint64_t& count);

}  // namespace agent

#endif
