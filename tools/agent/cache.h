// The fingerprint cache of backups: kept in a file between two runs, and under a limit.
#ifndef TOOLS_AGENT_CACHE_H
#define TOOLS_AGENT_CACHE_H

#include <string>
#include <vector>

#include "kscache.h"
#include "tools/agent/backup.h"
#include "tools/shared/cache.h"

namespace agent {

/// Data that come round as a whole are of no use to a cache that drops by reference counts when
/// they do not fit: all of them are asked for equally often. So a full cache takes nothing more,
/// and makes room at the end by dropping what this run did not come across.
class BackupCache {
  public:
    BackupCache(const BackupOptions& options, uint64_t segments);

    KSCache* get() { return cache_.get(); }

    /// Empty, or why it was not loaded: the cache is as it was, then.
    std::string load();

    /// Adds what was recorded. What finds no room, or no memory, is new once more the next time.
    void remember(const std::vector<KSCacheKey>& keys, uint64_t value);

    /// Beside the old file, which is replaced when the new one is whole; `sawAll` tells that the
    /// run came to its end. Empty, or what went wrong.
    std::string save(bool sawAll);

  private:
    KSCacheStatsRecord stats() const;
    uint64_t room() const;
    void makeRoom(bool sawAll);

    std::string path_;
    uint64_t limit_;     ///< bytes
    bool full_ = false;  ///< something found no room
    tool::CachePointer cache_;
};

}  // namespace agent

#endif
