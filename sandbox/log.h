// The request log: tests read from it how many requests and connections there were, and which.
//
// Thread rule: one thread at a time, under State::mutex.
//
// Invariants:
//  1. `last_` has at most 100 entries, the newest at the end; their texts that a client chooses are
//     cut to 200 bytes each.
//  2. `actions_` has at most 101 names: further ones are counted together as "...".
#ifndef SANDBOX_LOG_H
#define SANDBOX_LOG_H

#include <cstdint>
#include <deque>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "sandbox/request.h"

namespace sandbox {

/// One request of the log.
struct LogEntry {
    std::string id;
    std::string service;
    std::string action;
    std::string login;  ///< empty unless the login was verified
    std::string fault;  ///< the kind that struck, or empty
    Pairs parameters;
    unsigned status = 0;    ///< 0: no answer
    bool replayed = false;  ///< answered with a stored answer
};

/// The requests under /ws/.
class RequestLog {
  public:
    void add(LogEntry entry);
    void addConnection() { ++connections_; }
    void clear();
    nlohmann::ordered_json report() const;

  private:
    uint64_t total_ = 0;        ///< requests, also those that `last_` has no more
    uint64_t connections_ = 0;  ///< connections of any request, /__admin/ too
    std::map<std::string, uint64_t> actions_;
    std::deque<LogEntry> last_;
};

}  // namespace sandbox

#endif
