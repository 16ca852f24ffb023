// The log of requests.
#ifndef SANDBOX_LOG_H
#define SANDBOX_LOG_H

#include <cstdint>
#include <deque>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "sandbox/request.h"

namespace sandbox {

/// A line of the request log.
struct LogEntry {
    std::string id;
    std::string service;
    std::string action;
    std::string login;
    std::string fault;
    Pairs parameters;
    unsigned status = 0;  ///< 0: no answer
    bool replayed = false;
};

/// The requests under /ws/.
class RequestLog {
  public:
    void add(LogEntry entry);
    void addConnection() { ++connections_; }
    void clear();
    nlohmann::ordered_json report() const;

  private:
    uint64_t total_ = 0;
    uint64_t connections_ = 0;
    std::map<std::string, uint64_t> actions_;
    std::deque<LogEntry> last_;
};

}  // namespace sandbox

#endif
