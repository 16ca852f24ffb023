// The cache of a scan, and its optional file.
//
// Thread rule: one thread at a time per cache, as for KSCache.
// Invariants:
//  1. The value of an entry consists of a mark of scans (the top 8 bits), the number of the scan
//     (the next 24) and the number of the file in which the segment was found first. So a file of
//     an earlier scan is never taken for one of this scan, and a cache file that was not made by
//     scans is refused.
//  2. A cache at its limit accepts no more entries; segments that are not cached are reported.
//     KSCacheCheck() cannot be used: repeats of the entries that it drops would count as unique.
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

    /// Looks up a segment of a file, and adds it if it is new. For kSameFile and kOtherFile,
    /// `source` receives the number of the file with the first copy.
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
