// The request log: shows tests and people how many requests and connections there were, which ones,
// and the messages on the wire.
//
// Thread rule: one thread at a time, under State::mutex.
//
// Invariants:
//  1. `last_` has at most 100 entries, the newest at the end, with ascending numbers. Texts that a
//     client chooses are truncated to 200 bytes each, and messages to 8 KiB; only the first 20
//     parameters are kept.
//  2. `actions_` has at most 101 names: all others are counted together as "...".
#ifndef SANDBOX_LOG_H
#define SANDBOX_LOG_H

#include <cstdint>
#include <deque>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "sandbox/request.h"

namespace sandbox {

/// A message as on the wire, or its beginning.
struct Message {
    std::string text;
    uint64_t bytes = 0;  ///< of the complete message, as far as known when it is logged
};

/// One request of the log.
struct LogEntry {
    std::string id;
    std::string service;
    std::string action;
    std::string login;  ///< empty unless the login was verified
    std::string fault;  ///< the kind that struck, or empty
    Pairs parameters;
    unsigned status = 0;      ///< 0: no answer
    uint32_t event = 0;       ///< 0: none
    bool replayed = false;    ///< answered with a stored answer
    uint64_t number = 0;      ///< from 1 on; set by add()
    double time = 0;          ///< seconds since 1970 by the machine's clock, at its head
    double milliseconds = 0;  ///< from its head to the queued answer
    Message request;
    Message answer;
};

/// The requests under /ws/.
class RequestLog {
  public:
    /// Returns the number of the request.
    uint64_t add(LogEntry entry);
    void addConnection() { ++connections_; }
    void clear();
    nlohmann::ordered_json report() const;

    /// Changes when the log is cleared; numbering then restarts.
    uint64_t epoch() const { return epoch_; }
    uint64_t total() const { return total_; }
    /// Requests with higher numbers, as {"missed": how many are no longer kept, "requests": [...]}.
    nlohmann::ordered_json since(uint64_t number) const;
    /// Both messages of a request that is kept; null for another one.
    nlohmann::ordered_json messages(uint64_t number) const;

  private:
    uint64_t epoch_ = 0;
    uint64_t total_ = 0;        ///< requests, including those that are no longer in `last_`
    uint64_t connections_ = 0;  ///< connections of any request, /__admin/ too
    std::map<std::string, uint64_t> actions_;
    std::deque<LogEntry> last_;
};

}  // namespace sandbox

#endif
