// A cache file that this process holds, so that no other process replaces it meanwhile.
//
// Thread rule: one thread at a time per object.
#ifndef TOOLS_AGENT_HELD_FILE_H
#define TOOLS_AGENT_HELD_FILE_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "kscache.h"
#include "tools/shared/cache.h"

namespace agent {

class HeldFile {
  public:
    /// With an empty path nothing is held. With `stop`, waits while another process holds the file,
    /// until `stop` returns true. Throws Failure: kHeld if another process holds the file; also if
    /// it is not a cache file.
    explicit HeldFile(std::string path, const std::function<bool()>& stop = {});

    const std::string& path() const { return path_; }
    uint64_t size() const;  ///< bytes, 0 when there is no file
    uint64_t entries() const { return size() / tool::kRecordSize; }

    /// Throws Failure.
    void replace(const KSCache* cache) const;

  private:
    struct Release {
        void operator()(KSCacheHold* hold) const { KSCacheReleaseFile(hold); }
    };

    std::string path_;
    std::unique_ptr<KSCacheHold, Release> hold_;
};

}  // namespace agent

#endif
