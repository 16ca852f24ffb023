// A pool server in this process.
#ifndef TESTS_SERVED_POOL_H
#define TESTS_SERVED_POOL_H

#include <memory>
#include <string>

#include "sandbox/sandbox.h"

/// A server whose clock stands still.
inline std::unique_ptr<sandbox::Server> servedPool(const sandbox::Settings& settings,
                                                   const std::string& clock = "1700000000") {
    auto server = std::make_unique<sandbox::Server>(settings);
    server->admin("POST", "clock", clock);
    return server;
}

#endif
