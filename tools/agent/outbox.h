// The POs that wait to be sent, with the new segments of their files.
//
// Invariant: a segment enters the cache only after the server has confirmed the PO of a file that
// contains it. Otherwise a lost request would leave segments that count as known but are not
// recorded anywhere.
#ifndef TOOLS_AGENT_OUTBOX_H
#define TOOLS_AGENT_OUTBOX_H

#include <chrono>
#include <cstdint>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "tools/agent/cache.h"
#include "tools/agent/facts.h"
#include "tools/agent/record_report.h"
#include "tools/agent/segments.h"
#include "tools/shared/session.h"

namespace agent {

/// Adds its lifetime to a sum.
class Stopwatch {
  public:
    explicit Stopwatch(double& sum);
    ~Stopwatch();
    Stopwatch(const Stopwatch&) = delete;
    Stopwatch& operator=(const Stopwatch&) = delete;

  private:
    double& sum_;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

std::vector<KSCacheKey> keysOf(const std::vector<Digest>& digests, uint32_t type);

class Outbox {
  public:
    /// Segments of confirmed files get `image`, a number of the facts, as their value. A dry run
    /// sends nothing and treats everything as confirmed.
    Outbox(const RecordOptions& options, uint32_t fingerprintType, uint64_t image,
           tool::Session& session, BlockCache& cache, RecordResult& result);

    /// Adds a segment to those that wait. False if it was among them.
    bool isNew(const Digest& digest) { return waiting_.insert(digest).second; }

    /// Adds the PO of an entry. A full list is sent; throws Failure if it is not confirmed.
    void add(const Record& record);

    /// Sends all waiting POs. Throws Failure.
    void send();

    const ImageSum& sum() const { return sum_; }
    const std::unordered_set<std::string>& paths() const { return paths_; }  ///< of all POs so far

  private:
    const RecordOptions& options_;
    uint32_t type_;
    uint64_t image_;
    tool::Session& session_;
    BlockCache& cache_;
    RecordResult& result_;
    std::string list_;
    uint32_t listed_ = 0;
    std::set<Digest> waiting_;  ///< new segments of the files in the list
    std::unordered_set<std::string> paths_;
    ImageSum sum_;
};

}  // namespace agent

#endif
