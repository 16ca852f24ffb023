// The fingerprint cache of recordings: kept in a file between two runs, and under a limit.
//
// Thread rule: one thread at a time per cache, as for KSCache.
// Invariants:
//  1. The value of an entry is the number of the image that holds the segment (facts.h). A new
//     entry gets the number of the image being recorded, and only after the server has confirmed a
//     file that has the segment.
//  2. Entries that were loaded and not met in this run have reference count 1; entries that were
//     met or added have more. makeRoom() and tieMet() tell them apart by that.
//  3. Only a whole run is saved: until then the entries that it met keep the image that they had.
//
// A full cache takes no more entries, and makes room at the end of the run by dropping entries that
// the run did not meet: as many as it left out, since they may be of files that were not read
// again. KSCacheCheck() would not do: recordings read all data in turn, and cyclic scans larger
// than the limit defeat count-based eviction, since every entry has the same count.
#ifndef TOOLS_AGENT_CACHE_H
#define TOOLS_AGENT_CACHE_H

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "kscache.h"
#include "tools/agent/held_file.h"
#include "tools/shared/cache.h"

namespace agent {

inline constexpr char kNoEntries[] = "none";

class BlockCache {
  public:
    /// For a number of entries and a limit in bytes. Throws Failure.
    BlockCache(uint64_t entries, uint64_t limit);

    KSCache* get() { return cache_.get(); }
    KSCacheStatsRecord stats() const;

    /// Loads the file, if there is one. Returns why it was not loaded: the cache is then empty.
    std::optional<std::string> load(const HeldFile& file);

    /// Drops all entries.
    void clear() { KSCacheReset(cache_.get()); }

    /// A sum over all entries and their values, in any order: a load does not keep the order of the
    /// file. kNoEntries for an empty cache, which has no file.
    std::string sum() const;

    /// The number of entries of each value.
    std::map<uint64_t, uint64_t> ties() const;

    /// The values of the entries that this run met or added.
    std::set<uint64_t> metValues() const;

    /// Drops the entries with other values.
    void keep(const std::set<uint64_t>& values);

    /// Adds the fingerprints of confirmed files. An entry without room, or memory, is left out: its
    /// segment counts as new in the next run.
    void remember(const std::vector<KSCacheKey>& keys, uint64_t value);

    /// Holds the cache to its limit, with room for as many entries as this run left out.
    void makeRoom();

    /// Gives the entries that this run met a value. Reference counts then start anew.
    void tieMet(uint64_t value);

    const KSCache* get() const { return cache_.get(); }

  private:
    uint64_t room() const;
    void dropSurplus(uint64_t most, bool met);

    uint64_t limit_;        ///< bytes
    uint64_t leftOut_ = 0;  ///< entries without room
    tool::CachePointer cache_;
};

}  // namespace agent

#endif
