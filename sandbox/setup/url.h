// The URL that a sandbox is reached by.
#ifndef SANDBOX_SETUP_URL_H
#define SANDBOX_SETUP_URL_H

#include <cstdint>
#include <string>

namespace sandbox {

struct Url {
    bool tls = false;
    std::string host;
    uint16_t port = 0;
    std::string prefix;  ///< "/pool", or empty
};

/// Throws std::runtime_error for what is no URL of a sandbox.
Url parseUrl(const std::string& text);

}  // namespace sandbox

#endif
