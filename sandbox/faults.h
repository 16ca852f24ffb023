// Fault injection: a queue of faults, each of which disrupts one of the next requests.
//
// A fault strikes either after the effect of the request or instead of it:
//  - carried out: the core handles the request, then its answer is delayed or corrupted (delay,
//    lose, lie, cut, stall, nul, unbounded, chunked, type); `clock` lets the clock jump first. A
//    client without a valid answer cannot tell whether the request was done, and can only resend it
//    with the same id.
//  - not carried out: the core never sees the request, and the fault makes an answer of its own, or
//    none (reset, oversize, garbage, status, redirect, event, bad-event).
// An injected event also refuses: it promises the client that no transmission of the request was
// carried out. If the core cannot promise that, the HTTP side drops the fault and the core answers:
// otherwise the client would report that a change failed which was made.
//
// Thread rule: one thread at a time, under State::mutex.
//
// Invariants:
//  1. `timesLeft` of each fault in the queue is at least 1; a fault at 0 is removed. The queue has
//     at most 1,000 faults.
//  2. The members of each fault are validated when it is added, so reading them later cannot throw.
//  3. `struck_` has at most 20 requests, the newest at the end.
//  4. Each fault has its own random generator with a given seed, and draws only for requests of its
//     action: the same requests in the same order get the same faults in each run.
#ifndef SANDBOX_FAULTS_H
#define SANDBOX_FAULTS_H

#include <cstdint>
#include <deque>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <string>

#include "sandbox/request.h"

namespace sandbox {

/// The way an answer goes out.
enum class Delivery {
    kPlain,
    kReset,      ///< no answer; the connection is reset (TCP RST)
    kClose,      ///< no answer; the connection is closed
    kGarbage,    ///< bytes that are not HTTP, then closed
    kCut,        ///< the head, a part of the body, then closed
    kStall,      ///< the head, a pause, then the body
    kOversize,   ///< a body of the ordered length, made while it is sent
    kUnbounded,  ///< no length; the end of the connection ends the body
    kChunked,    ///< in chunks instead of with a length
};

struct Fault;

/// One row for each kind.
struct FaultKind {
    const char* name;
    bool carriedOut;  ///< the request is carried out, and only its answer is disrupted
    bool refuses;     ///< the answer promises that the request was not done
    Delivery delivery;
    /// Changes the answer: the core's if `carriedOut`, else an empty one with status 200.
    /// `reporter` is Core::reporter().
    void (*change)(const Fault& fault, const nlohmann::json& reporter, Answer& answer);
    const char* members;  ///< JSON members beside the common ones, each followed by a blank
};

/// An ordered fault. take() returns a copy, since the fault in the queue may apply again.
struct Fault {
    const FaultKind* kind = nullptr;
    nlohmann::json members;  ///< as ordered
    uint64_t timesLeft = 1;  ///< number of requests that it will still strike
    double chance = 1;       ///< of each request, 0 to 1
    std::mt19937_64 random;  ///< draws for `chance`

    uint64_t number(const char* member, uint64_t otherwise) const {
        return members.value(member, otherwise);
    }
    std::string text(const char* member, const std::string& otherwise) const {
        return members.value(member, otherwise);
    }
    /// Milliseconds to wait before the request is handled.
    uint64_t delay() const;
    /// Seconds by which the server's clock jumps before the request is carried out.
    int64_t jump() const { return members.value("seconds", int64_t{0}); }
};

/// The queue.
class Faults {
  public:
    /// Adds all faults of a JSON array, or none if one is invalid. {"scenario": NAME} stands for
    /// the faults of that scenario (scenarios.h). Throws std::runtime_error that names the invalid
    /// part.
    void add(const nlohmann::json& list);
    void clear();
    /// The first fault for this action that its chance selects; it counts as used.
    std::optional<Fault> take(const std::string& action);
    /// Records that a fault struck this request.
    void struck(uint64_t request, const Fault& fault, const std::string& action);
    nlohmann::ordered_json report() const;
    /// Changes with each change of the report.
    uint64_t version() const { return version_; }
    /// The kinds, each with its members, and the members that are numbers.
    static nlohmann::ordered_json kinds();

  private:
    std::deque<Fault> faults_;
    std::deque<nlohmann::ordered_json> struck_;
    uint64_t taken_ = 0;  ///< since the last clear()
    uint64_t version_ = 0;
};

}  // namespace sandbox

#endif
