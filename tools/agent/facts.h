// The file of facts beside a cache file: what the entries of the cache mean.
//
// The value of a cache entry is the number of an image that holds the segment. The facts map the
// numbers to images, and have a sum over the POs of each image as recorded. By these a segment
// counts as known only while the server still has that image.
//
// Invariants:
//  1. A number names one recording of one image for ever. Recording a name again uses a new number,
//     and removes the old one from the facts before the server is changed.
//  2. `caches` holds the sum of the cache file. The facts are replaced before the cache file, and
//     hold the sums of both the old and the new cache, so that a process that is killed in between
//     leaves a pair that matches.
#ifndef TOOLS_AGENT_FACTS_H
#define TOOLS_AGENT_FACTS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/agent/image.h"
#include "tools/agent/po.h"

namespace agent {

/// What a cache is bound to: entries made for another pool, for example, would be wrong.
struct Binding {
    std::string server;  ///< URL
    uint32_t pool = 0;   ///< the configuration's pool id, 0 without one
    uint32_t dataselection = 0;
    Cut cut;

    bool operator==(const Binding&) const = default;
};

/// An order-independent sum over the POs of an image, with their number. It covers all fields that
/// decide whether data count as known.
struct ImageSum {
    uint64_t pos = 0;
    uint64_t sum = 0;

    void add(const Record& record);
    bool operator==(const ImageSum&) const = default;
};

struct ImageFact {
    uint64_t number = 0;
    ImageName name;
    std::string run;  ///< random name, which the comments of this recording's POs contain
    ImageSum sum;
};

struct Facts {
    Binding binding;
    uint64_t next = 1;              ///< number of the next image
    std::vector<ImageFact> images;  ///< in the order of their numbers
    std::vector<std::string> caches;

    const ImageFact* byRun(const std::string& run) const;
    const ImageFact* byNumber(uint64_t number) const;
    /// Removes the recording of a name. False if there is none.
    bool untie(const ImageName& name);
};

/// The path of the facts for a cache file, whose symbolic links are resolved.
std::string factsPath(const std::string& cache);

/// nullopt if there is no file. Facts without a server mean a damaged file, or one of another
/// version. Throws Failure if the file cannot be read, or is not a file of facts and therefore must
/// not be replaced.
std::optional<Facts> loadFacts(const std::string& path);

void saveFacts(const std::string& path, const Facts& facts);

}  // namespace agent

#endif
