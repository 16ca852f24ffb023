// The fingerprint cache of backups: kept in a file between two runs, and under a limit.
//
// Thread rule: one thread at a time per cache, as for KSCache.
// Invariants:
//  1. A fingerprint is in the cache only after the server has confirmed a file that has the
//  segment.
//     Otherwise a lost request would leave segments that are known here and recorded nowhere.
//  2. Entries that were loaded and not met in this run have reference count 1; entries that were
//     met or added have more. makeRoom() tells them apart by that.
//  3. The file is held from before it is loaded until it is replaced: a second run beside this one
//     would otherwise replace it without the entries of this one.
//
// A full cache takes no more entries, and makes room at the end of the run by dropping entries that
// the run did not meet. KSCacheCheck() would not do: backups read all data in turn, and cyclic
// scans larger than the limit defeat count-based eviction, since every entry has the same count.
#ifndef TOOLS_AGENT_CACHE_H
#define TOOLS_AGENT_CACHE_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kscache.h"
#include "tools/shared/cache.h"

namespace agent {

struct ReleaseHold {
    void operator()(KSCacheHold* hold) const { KSCacheReleaseFile(hold); }
};

class BackupCache {
  public:
    /// For the cache file `path` (empty: none), which is held, and a limit in bytes. Throws
    /// Failure, also when another process holds the file, or when it is not a cache file.
    BackupCache(std::string path, uint64_t limit, uint64_t segments);

    KSCache* get() { return cache_.get(); }

    /// Loads the file, if there is one. Returns why it was not loaded: the cache is then empty.
    std::optional<std::string> load();

    /// Adds fingerprints of confirmed files. An entry without room, or memory, is left out: its
    /// segment counts as new in the next run.
    void remember(const std::vector<KSCacheKey>& keys, uint64_t value);

    /// Saves into the file, under the limit. `sawAll`: the run met all of its data. Throws Failure.
    void save(bool sawAll);

  private:
    KSCacheStatsRecord stats() const;
    uint64_t room() const;
    void makeRoom(bool sawAll);
    [[noreturn]] void fail(const std::string& why) const;

    std::string path_;
    uint64_t limit_;     ///< bytes
    bool full_ = false;  ///< an entry was left out
    tool::CachePointer cache_;
    std::unique_ptr<KSCacheHold, ReleaseHold> hold_;
};

}  // namespace agent

#endif
