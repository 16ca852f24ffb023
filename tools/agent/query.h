// Queries and changes on the server: the POs of files, and the records of images.
//
// Nothing here prints. Every function throws Failure if the server refuses or cannot be reached.
//
// Thread rule: one thread, as for tool::Session.
// Invariants:
//  1. An answer with fewer POs than it announces is a failure and not a shorter list: otherwise
//     verify and expire would take missing POs for missing files. The failure is detected before
//     the first PO is visited.
//  2. An image with a record is complete: the record is set after the last PO is confirmed, and
//     deleted before the first PO is expired. POs without a record belong to a run that is still
//     going on or has ended early.
#ifndef TOOLS_AGENT_QUERY_H
#define TOOLS_AGENT_QUERY_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/agent/image.h"
#include "tools/agent/po.h"
#include "tools/shared/session.h"

namespace agent {

/// The POs to find. Texts are patterns, in which `*` matches any text, slashes included, and `?`
/// any character. They cannot be escaped, so a name that contains one also matches other names: see
/// isSame().
struct Criteria {
    ImageName name;  ///< an empty image: any
    std::string folder = "*";
    std::string file = "*";  ///< pattern of names
    char type = '*';         ///< f, d, l, or * for all
};

using POVisitor = std::function<void(FoundPO&& found, std::string_view line)>;

/// Visits the POs in the order of the answer: by folder, name, client, policy and image. `line` has
/// no LF, and is valid during the visit. Returns the number of POs. The complete answer is kept in
/// memory.
uint64_t findPOs(tool::Session& session, const Criteria& criteria, const POVisitor& visit);

/// Visits the POs of one image; its names are not patterns.
uint64_t findImage(tool::Session& session, const ImageName& name, const POVisitor& visit);

/// The letter of a record's kind: f, d, l, or ? for any other.
char typeOf(const Record& record);

/// The number of POs that the server has for an image.
uint64_t countFiles(const ImageName& name, tool::Session& session);

struct ImageRecord {
    ImageName name;
    int64_t time = 0;  ///< seconds since 1970
    int32_t parent = 0;
    std::string dofp;
    int64_t dcid = 0;
    int32_t flags = 0;
};

/// The records of the images of a client and a policy (empty: any), the newest first. Finding none
/// is not a failure; an unknown data selection is one, with ExitCode::kNothing.
std::vector<ImageRecord> listImages(tool::Session& session, uint32_t dataselection,
                                    const std::string& client, const std::string& policy);

/// How long an image is to be kept.
struct Retention {
    int64_t seconds = 0;
    int64_t wormFlags = 0;
    int64_t setAt = 0;  ///< seconds since 1970
};

/// nullopt if none was set, or if the image has no record.
std::optional<Retention> retentionOf(tool::Session& session, const ImageName& name);

/// Sets the record of an image: from then on it is complete.
void setImage(tool::Session& session, const ImageName& name, int64_t time);

/// Deletes the record of an image, not its POs. False when there is none.
bool deleteImage(tool::Session& session, const ImageName& name);

/// Expires POs, given as lines that end with LF, in requests of bounded size. A failure does not
/// undo earlier requests.
void expirePOs(tool::Session& session, uint32_t dataselection, std::string_view lines);

}  // namespace agent

#endif
