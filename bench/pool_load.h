// A load: agents in threads, and what they did.
//
// Thread rule: one thread, in which SIGINT and SIGTERM are blocked once the sessions are open. The
// first of these signals ends the load after the operations under way, the second one aborts these
// as well.
#ifndef BENCH_POOL_LOAD_H
#define BENCH_POOL_LOAD_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/pool_agent.h"

namespace pool {

struct Result {
    uint64_t preloaded = 0;
    double preloadSeconds = 0;
    double seconds = 0;
    std::array<double, kKinds> kindSeconds{};  ///< in a mix, that of the mix
    /// Operations that succeeded, a second, in each of the rounds; in a mix as a whole.
    std::array<std::vector<double>, kKinds> rates;
    Tallies tallies;
    std::vector<Tallies> byUrl;
    MBStatistics statistics{};  ///< the sum of those numbers that count requests and bytes
    bool interrupted = false;
};

class Load {
  public:
    /// Opens all sessions. Throws std::runtime_error, as the others do.
    explicit Load(const Settings& settings);

    void preload();
    /// To be called once.
    void run();
    /// To be called after run().
    Result result() const;

  private:
    double together(const std::string& title, const std::function<void(Agent&)>& work);
    double stage(const std::string& title, const Weights& weights);
    void takeSignals();
    uint64_t succeeded(Kind kind) const;

    const Settings& settings_;
    std::vector<std::unique_ptr<Agent>> agents_;
    Counters counters_;
    unsigned signals_ = 0;
    Result result_;
};

/// "1,234,567".
std::string counted(double number);

}  // namespace pool

#endif
