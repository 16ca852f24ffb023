// The cache of a scan, and the file that it may be kept in.
//
// Thread rule: one thread at a time per cache, as for KSCache.
// Invariants:
//  1. The value of an entry is a mark of scans in the top 8 bits, the number of the scan in the
//  next
//     24, and the number of the file that the segment was met in first. So a file of an earlier
//     scan is never taken for one of this scan, and a cache file whose entries were made by
//     something else is refused: a scan says nothing about what is recorded anywhere.
//  2. A cache at its limit takes no more entries. KSCacheCheck() would not do: it forgets entries,
//     whose repeats would then count as unique, while segments that are not cached are reported.
//  3. The file is held from before it is loaded until it is replaced.
#ifndef TOOLS_AGENT_SCAN_CACHE_H
#define TOOLS_AGENT_SCAN_CACHE_H

#include <cstdint>

#include "tools/agent/held_file.h"
#include "tools/agent/scan.h"
#include "tools/agent/scan_result.h"
#include "tools/agent/segments.h"
#include "tools/shared/cache.h"

namespace agent {

class ScanCache {
  public:
    /// For a number of entries that is expected. Throws Failure.
    ScanCache(const ScanOptions& options, const DigestKind& kind, uint64_t entries);

    /// Loads the file of earlier scans, if there is one. Throws Failure.
    void load(const HeldFile& file);

    /// What is known of a segment of a file, which is remembered. `source` receives the number of
    /// the file that has the first copy, for kSameFile and kOtherFile.
    Fate ask(const Digest& digest, uint32_t file, uint32_t& source);

    KSCache* get() const { return cache_.get(); }

  private:
    bool isFull() const;

    uint32_t type_;
    uint64_t limit_;  ///< bytes; 0: none
    uint64_t scan_;   ///< the upper half of the values of this scan
    tool::CachePointer cache_;
};

}  // namespace agent

#endif
