// The network functions' stand-in. No state: any thread may call any function here.
#include <cstring>
#include <string_view>

#include "common/ascii.h"
#include "platform/net.h"

namespace {

/// The value of a hexadecimal digit, or -1.
int digitOf(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    const char letter = kspool::asciiLower(c);
    return letter >= 'a' && letter <= 'f' ? letter - 'a' + 10 : -1;
}

}  // namespace

char* URLDecode(char* text) noexcept {
    char* out = text;
    for (const char* in = text; *in != '\0'; ++out) {
        const int high = *in == '%' ? digitOf(in[1]) : -1;
        const int low = high >= 0 ? digitOf(in[2]) : -1;
        if (low >= 0) {
            *out = static_cast<char>(high * 16 + low);
            in += 3;
        } else {
            *out = *in++;
        }
    }
    *out = '\0';
    return text;
}

int NetExtractHostAndPort(const char* url, char* buffer, size_t size, int) noexcept {
    if (size == 0) return 0;
    std::string_view rest = url;
    const size_t scheme = rest.find("://");
    if (scheme < rest.find_first_of("/?#")) rest.remove_prefix(scheme + 3);
    rest = rest.substr(0, rest.find_first_of("/?#"));
    // The last @ ends the user info: a password that is not encoded may hold one.
    const size_t user = rest.rfind('@');
    if (user != std::string_view::npos) rest.remove_prefix(user + 1);
    rest = rest.substr(0, size - 1);
    memcpy(buffer, rest.data(), rest.size());
    buffer[rest.size()] = '\0';
    return static_cast<int>(rest.size());
}
