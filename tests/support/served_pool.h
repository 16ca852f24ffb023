// A pool server in this process.
#ifndef TESTS_SERVED_POOL_H
#define TESTS_SERVED_POOL_H

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "sandbox/sandbox.h"

/// A server whose clock stands still.
inline std::unique_ptr<sandbox::Server> servedPool(const sandbox::Settings& settings,
                                                   const std::string& clock = "1700000000") {
    std::string error;
    auto server = sandbox::Server::start(settings, error);
    EXPECT_NE(server, nullptr) << error;
    server->admin("POST", "clock", clock);
    return server;
}

#endif
