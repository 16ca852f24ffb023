#include "sandbox/setup/url.h"

#include <algorithm>
#include <charconv>
#include <stdexcept>
#include <string_view>

#include "sandbox/store/characters.h"

namespace sandbox {
namespace {

[[noreturn]] void refuse(const std::string& text, const char* why) {
    throw std::runtime_error("'" + text + "' is no URL of a sandbox: " + why);
}

bool onlyOf(std::string_view text, std::string_view further) {
    return std::all_of(text.begin(), text.end(), [&](char c) {
        return isLetterOrDigit(c) || further.find(c) != std::string_view::npos;
    });
}

}  // namespace

Url parseUrl(const std::string& text) {
    constexpr std::string_view kPlain = "http://";
    constexpr std::string_view kSecure = "https://";
    Url url;
    std::string_view rest = text;
    url.tls = rest.starts_with(kSecure);
    if (!url.tls && !rest.starts_with(kPlain))
        refuse(text, "it starts with neither http:// nor https://");
    rest.remove_prefix(url.tls ? kSecure.size() : kPlain.size());

    const std::string_view place = rest.substr(0, rest.find('/'));
    url.prefix = rest.substr(place.size());
    while (url.prefix.ends_with('/'))
        url.prefix.pop_back();
    if (!onlyOf(url.prefix, "/-._~")) refuse(text, "its path has more than letters, digits, /-._~");

    const size_t colon = place.find(':');
    url.host = place.substr(0, colon);
    if (url.host.empty() || !onlyOf(url.host, "-."))
        refuse(text, "its host is neither a name nor an address such as 127.0.0.1");
    url.port = url.tls ? 443 : 80;
    if (colon != std::string_view::npos) {
        const std::string_view digits = place.substr(colon + 1);
        const char* end = digits.data() + digits.size();
        const auto [stop, error] = std::from_chars(digits.data(), end, url.port);
        if (error != std::errc() || stop != end || url.port == 0)
            refuse(text, "its port is no number from 1 to 65535");
    }
    url.text = text.substr(0, text.find_last_not_of('/') + 1);
    return url;
}

}  // namespace sandbox
