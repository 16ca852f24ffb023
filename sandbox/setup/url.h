// The URL of a sandbox.
#ifndef SANDBOX_SETUP_URL_H
#define SANDBOX_SETUP_URL_H

#include <cstdint>
#include <string>

namespace sandbox {

struct Url {
    bool tls = false;
    std::string host;
    uint16_t port = 0;
    std::string prefix;  ///< "/pool", or empty; without a slash at its end
    std::string text;    ///< all of it, without slashes at its end: a path may be appended
};

/// Parses http://HOST[:PORT][/PATH], or https. Throws std::runtime_error for anything else.
Url parseUrl(const std::string& text);

}  // namespace sandbox

#endif
