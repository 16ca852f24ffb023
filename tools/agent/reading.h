// Reading files and fingerprinting their segments on all cores.
//
// Thread rule: readFiles() starts threads, which read and hash; `take` is called on the caller's
// thread only. The threads have ended when readFiles() returns or throws.
// Invariants:
//  1. `take` gets every file of the list once, in the order of the list, so that no result depends
//     on the number of threads.
//  2. The tasks that are handed out and not yet taken are at most a fixed number for each thread,
//  so
//     that a slow consumer bounds the memory. Only the digests of one file are kept beyond that.
//  3. A large file is read in pieces, by all threads. Each piece but the last is a multiple of all
//     segment sizes, so that no segment lies in two pieces.
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
    /// May be empty. Told of the bytes that were read, on the caller's thread, before the file is
    /// handed over: a large file is told of several times.
    std::function<void(uint64_t bytes)> advance;
};

/// A file after it was read. Segment i of k is segmentSizes[k] long, the last one may be shorter.
struct ReadFile {
    const Entry* entry = nullptr;
    FileStatus status;                         ///< of the open file, before it was read
    int64_t readAt = 0;                        ///< seconds since 1970, before it was read
    uint64_t bytes = 0;                        ///< that were read
    std::vector<std::vector<Digest>> digests;  ///< for each segment size, in the order of the file
    std::optional<std::string> problem;  ///< why it was not read to its end: the rest is partial
};

/// Reads the files in the order of the list, up to the size that each has when it is opened. A file
/// that became shorter ends at its end. `take` may throw: the exception passes to the caller after
/// the threads have ended, as does that of a thread. `stop` is asked on the caller's thread several
/// times a second, and after each file: when it says so, no further file is handed over.
void readFiles(const std::vector<const Entry*>& files, const ReadOptions& options,
               const std::function<void(ReadFile&&)>& take, const std::function<bool()>& stop);

}  // namespace agent

#endif
