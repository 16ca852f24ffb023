// The file of facts beside a cache file: what the entries of the cache mean.
//
// An entry of the cache has the number of an image as its value: that image holds the segment. The
// facts tell which image a number is, and how the image's POs were when it was recorded. So a
// segment may be called known only while the server still has that image.
//
// Invariants:
//  1. A number names one recording of one image for ever. To record a name again takes a new
//     number, and the old one leaves the facts before the server is changed.
//  2. `caches` holds the sum of the cache file beside it. While both files are being replaced it
//     holds the sums of the old and of the new one: the facts are replaced first, so that a process
//     that is killed between the two leaves a pair that matches.
#ifndef TOOLS_AGENT_FACTS_H
#define TOOLS_AGENT_FACTS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/agent/image.h"
#include "tools/agent/po.h"

namespace agent {

/// What a cache is bound to: entries made for another pool would be false here.
struct Binding {
    std::string server;  ///< URL
    uint32_t pool = 0;   ///< the configuration's pool id, 0 without one
    uint32_t dataselection = 0;
    Cut cut;

    bool operator==(const Binding&) const = default;
};

/// A sum over the POs of an image, in any order, with their number: over all that a claim rests on.
struct ImageSum {
    uint64_t pos = 0;
    uint64_t sum = 0;

    void add(const Record& record);
    bool operator==(const ImageSum&) const = default;
};

struct ImageFact {
    uint64_t number = 0;
    ImageName name;
    std::string run;  ///< random: the POs of this recording have it in their comments
    ImageSum sum;
};

struct Facts {
    Binding binding;
    uint64_t next = 1;              ///< number of the next image
    std::vector<ImageFact> images;  ///< in the order of their numbers
    std::vector<std::string> caches;

    const ImageFact* byRun(const std::string& run) const;
    const ImageFact* byNumber(uint64_t number) const;
    /// Drops the recording of a name. False when there is none.
    bool untie(const ImageName& name);
};

/// The file of facts of a cache file, symbolic links to the cache file resolved.
std::string factsPath(const std::string& cache);

/// Nothing when there is no file. Facts that name no server are of a damaged file, or of another
/// version. Throws Failure when the file cannot be read, or is something else, which must not be
/// replaced.
std::optional<Facts> loadFacts(const std::string& path);

void saveFacts(const std::string& path, const Facts& facts);

}  // namespace agent

#endif
