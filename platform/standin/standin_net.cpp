// The network functions' stand-in.
#include <cstring>
#include <string_view>

#include "platform/net.h"

int NetExtractHostAndPort(const char* url, char* buffer, size_t size, int) noexcept {
    if (size == 0) return 0;
    std::string_view rest = url;
    const size_t scheme = rest.find("://");
    if (scheme < rest.find_first_of("/?#")) rest.remove_prefix(scheme + 3);
    rest = rest.substr(0, rest.find_first_of("/?#"));
    // User info may hold an @ of its own.
    const size_t user = rest.rfind('@');
    if (user != std::string_view::npos) rest.remove_prefix(user + 1);
    rest = rest.substr(0, size - 1);
    memcpy(buffer, rest.data(), rest.size());
    buffer[rest.size()] = '\0';
    return static_cast<int>(rest.size());
}
