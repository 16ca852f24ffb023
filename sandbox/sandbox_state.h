// All that a server knows, and the lock for it.
#ifndef SANDBOX_SANDBOX_STATE_H
#define SANDBOX_SANDBOX_STATE_H

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>

#include "sandbox/sandbox_core.h"
#include "sandbox/sandbox_faults.h"

namespace sandbox {

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

struct State {
    explicit State(const Settings& settings) : core(settings) {}

    std::mutex mutex;
    Core core;
    Faults faults;
    RequestLog log;
    std::string url;
    std::string prefix;
    uint64_t bodyLimit = 0;
};

constexpr char kAdminFolder[] = "/__admin/";

/// Carries a function of /__admin/ out; `path` is what follows that. Locks. Throws nothing.
Answer administrate(State& state, const std::string& method, const std::string& path,
                    const std::string& body) noexcept;

}  // namespace sandbox

#endif
