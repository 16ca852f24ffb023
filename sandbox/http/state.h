// All that a server knows, and the lock for it.
#ifndef SANDBOX_HTTP_STATE_H
#define SANDBOX_HTTP_STATE_H

#include <cstdint>
#include <mutex>
#include <string>

#include "sandbox/core.h"
#include "sandbox/faults.h"
#include "sandbox/log.h"

namespace sandbox {

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

}  // namespace sandbox

#endif
