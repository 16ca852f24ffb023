// An agent of a pool: a session that records, queries and expires POs of its own, and checks each
// answer of a query.
//
// Thread rule: one thread at a time; abort() alone may run beside the others.
// Invariants:
//  1. The names of a PO follow from seed, agent and number. POs with successive numbers share a
//     client, a folder and a name prefix; the names of these groups are scrambled, so that groups
//     lie apart in the server's order, as POs of different clients do.
//  2. Numbers are used in units of --batch: a unit is recorded and expired as a whole. states_ has
//     the state of each unit, and live_ lists those that are in the pool for certain.
//  3. After a failed change the unit's state is kUnsure. The server may carry such a request out
//     later, so the unit is never used again, and a query may or may not find it.
#ifndef BENCH_POOL_AGENT_H
#define BENCH_POOL_AGENT_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bench/pool_tally.h"
#include "mb.h"

namespace pool {

using Clock = std::chrono::steady_clock;

struct Settings {
    std::vector<std::string> urls;
    unsigned agents = 4;
    double seconds = 0;       ///< 0: no limit
    uint64_t operations = 0;  ///< of all agents together; 0: no limit
    Weights weights{};
    unsigned rounds = 0;  ///< 0: a mix; else the kinds take turns, so many times
    uint64_t batch = 10;
    uint64_t preload = 0;
    uint32_t seed = 0;
    uint32_t dataselection = 1;
};

/// What all agents count while they run, for the progress and the limits.
struct Counters {
    std::atomic<uint64_t> taken = 0;  ///< operations that were begun
    std::atomic<uint64_t> done = 0;
    std::atomic<uint64_t> failed = 0;
    std::atomic<uint64_t> pos = 0;
    std::atomic<bool> stopped = false;  ///< by a signal or a failed agent; never reset
};

struct Stage {
    Weights weights{};
    uint64_t operations = 0;  ///< of all agents together; 0: no limit
    Clock::time_point end = Clock::time_point::max();
};

class Agent {
  public:
    /// Opens a session and lets the server tell its time, so that the connection is there. Throws
    /// std::runtime_error with the reason.
    Agent(const Settings& settings, unsigned number);

    /// Records POs in long lists. Throws std::runtime_error when a list is not taken.
    void preload(uint64_t pos, Counters& counters);
    /// Makes operations until the stage is over.
    void run(const Stage& stage, Counters& counters);
    /// Ends the operation under way, which then fails.
    void abort() { MBAbort(session_.get()); }

    const Tallies& tallies() const { return tallies_; }
    MBStatistics statistics() const;

  private:
    struct Shutdown {
        void operator()(MBSession* session) const { MBShutdown(session); }
    };
    enum State : uint8_t { kGone, kLive, kUnsure };
    struct Outcome {
        uint32_t status;
        uint64_t pos;
        std::string problem;
    };
    struct Range {
        uint64_t first, end;
    };

    template <typename Call>
    uint32_t timed(Call call);
    Kind choose(const Weights& weights);
    Outcome perform(Kind kind);
    Outcome record(uint64_t units);
    Outcome expire();
    Outcome query(Kind kind);
    void note(Kind kind, const Outcome& outcome, Counters& counters);
    std::string reasonOf(const Outcome& outcome) const;

    uint64_t below(uint64_t limit) { return random_() % limit; }
    Range expected(Range numbers) const;
    std::string group(uint64_t number, uint64_t size) const;
    std::string folder(uint64_t number) const;
    std::string name(uint64_t number) const;
    void appendPOs(std::string& text, uint64_t unit) const;

    const Settings& settings_;
    std::string tail_;  ///< of all names: agent and seed
    std::mt19937_64 random_;
    std::unique_ptr<MBSession, Shutdown> session_;
    std::vector<State> states_;
    std::vector<uint64_t> live_;
    uint64_t took_ = 0;  ///< nanoseconds of the last call
    Tallies tallies_;
};

}  // namespace pool

#endif
