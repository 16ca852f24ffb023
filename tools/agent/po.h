// The PO by which a file, folder or symbolic link is recorded on the server.
#ifndef TOOLS_AGENT_PO_H
#define TOOLS_AGENT_PO_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "tools/agent/entry.h"
#include "tools/agent/image.h"

namespace agent {

/// Bytes of lines of POs that are sent in one request.
inline constexpr size_t kLongestList = size_t{1} << 20;

/// How files are cut into segments and the segments hashed.
struct Cut {
    std::string digest;  ///< name of the digest: "sha256"
    uint64_t segmentSize = 0;

    bool operator==(const Cut&) const = default;
};

/// An entry as the server has it. A file that was not read again keeps the fields of its last
/// reading.
struct Record {
    std::string path;  ///< absolute
    FileStatus status;
    std::string digest;      ///< of a file: over the digests of its segments, hexadecimal
    std::optional<Cut> cut;  ///< of a file; nullopt: recorded by another program
    uint64_t segments = 0;
    uint64_t newSegments = 0;
    int64_t recordedAt = 0;  ///< seconds since 1970
    int64_t readAt = 0;      ///< the same; when the file was read
    std::string readRun;     ///< of a file: the run that read it
    std::string readImage;   ///< and the image for which it did so
    std::string target;      ///< of a symbolic link
};

/// Encodes a text for a field: `|`, `%` and control characters become %XX.
std::string fieldText(const std::string& text);

/// Undoes fieldText().
std::string plainText(std::string field);

/// The folder and the name of an absolute path, as a PO has them.
struct PlaceOfPath {
    std::string folder, name;
};
PlaceOfPath placeOf(const std::string& path);

/// The line of an entry in an image, with its LF.
std::string poLine(const ImageName& name, const Record& record);

/// A parsed line of an answer. Fields that are missing, or that another program has written in
/// another form, are empty or 0.
struct FoundPO {
    ImageName name;
    Record record;
};
FoundPO readPO(std::string_view line);

}  // namespace agent

#endif
