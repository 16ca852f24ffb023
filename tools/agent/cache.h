// The fingerprint cache of recordings: kept in a file between runs, and limited in size.
//
// Thread rule: one thread at a time per cache, as for KSCache.
// Invariants:
//  1. The value of an entry is the number of the image that holds the segment (facts.h). A new
//     entry gets the number of the image being recorded, and only after the server has confirmed a
//     file that has the segment.
//  2. Entries that were loaded and not met (looked up) in this run have reference count 1; entries
//     that were met or added have more. makeRoom() and tieMet() tell them apart by that.
//  3. Only a complete run is saved: until then the entries that it met keep their old image.
//
// A full cache accepts no more entries. At the end of the run makeRoom() drops entries that the run
// did not meet, but only as many as the run could not add: an entry that was not met may belong to
// a file that was not read again. KSCacheCheck() cannot be used: recordings read all data in turn,
// and cyclic scans larger than the limit defeat count-based eviction, since all counts are the
// same.
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

    /// Loads the file, if there is one. On failure returns the reason, and the cache is empty.
    std::optional<std::string> load(const HeldFile& file);

    /// Drops all entries.
    void clear() { KSCacheReset(cache_.get()); }

    /// A sum over all entries and their values. It does not depend on their order, which a load may
    /// change. kNoEntries for an empty cache, which has no file.
    std::string sum() const;

    /// The number of entries of each value.
    std::map<uint64_t, uint64_t> ties() const;

    /// The values of the entries that this run met or added.
    std::set<uint64_t> metValues() const;

    /// Drops the entries with other values.
    void keep(const std::set<uint64_t>& values);

    /// Adds the fingerprints of confirmed files. If the limit is reached or memory is short,
    /// entries are left out: their segments count as new in the next run.
    void remember(const std::vector<KSCacheKey>& keys, uint64_t value);

    /// Shrinks the cache to its limit, less room for as many entries as this run left out.
    void makeRoom();

    /// Sets the value of all entries that this run met. Their reference counts restart.
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
