// Reading files and fingerprinting their segments on all cores.
//
// Thread rule: readFiles() starts threads, which read and hash; `take` is called on the caller's
// thread only. The threads have ended when readFiles() returns or throws.
// Invariants:
//  1. `take` gets every file of the list once, in the order of the list, so that no result depends
//     on the number of threads.
//  2. The number of tasks that are started and not yet taken is limited per thread, so that memory
//     stays bounded with a slow consumer. Beyond that, only the digests of one file are kept.
//  3. A large file is read in pieces, by all threads. The length of each piece but the last is a
//     multiple of all segment sizes, so that no segment spans two pieces.
#ifndef TOOLS_AGENT_READING_H
#define TOOLS_AGENT_READING_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tools/agent/entry.h"
#include "tools/agent/segments.h"

namespace agent {

struct ReadOptions {
    const DigestKind* digest = nullptr;
    std::vector<uint64_t> segmentSizes;  ///< each file is read once and cut in each of these
    uint32_t jobs = 0;                   ///< threads; 0: one for each core that may be used
    /// May be empty. Called on the caller's thread with the number of bytes read, before the file
    /// is passed to `take`; several times for a large file.
    std::function<void(uint64_t bytes)> advance;
};

/// A file after it was read. Segment i of k is segmentSizes[k] long, the last one may be shorter.
struct ReadFile {
    const Entry* entry = nullptr;
    FileStatus status;                         ///< of the open file, before it was read
    int64_t readAt = 0;                        ///< seconds since 1970, before it was read
    uint64_t bytes = 0;                        ///< number read
    std::vector<std::vector<Digest>> digests;  ///< for each segment size, in the order of the file
    std::optional<std::string> problem;  ///< why it was not read to its end; digests are partial
};

/// Reads the files in the order of the list, up to the size that each has when it is opened, or
/// less if it is truncated meanwhile. An exception of `take` or of a thread is rethrown to the
/// caller after all threads have ended. `stop` is called on the caller's thread several times per
/// second, and after each file: once it returns true, no further file is passed to `take`.
void readFiles(const std::vector<const Entry*>& files, const ReadOptions& options,
               const std::function<void(ReadFile&&)>& take, const std::function<bool()>& stop);

}  // namespace agent

#endif
