// Locale-independent text functions: comparison that ignores ASCII case, and escaping of control
// characters. strcasecmp() and similar functions depend on the program's locale: in a Turkish one
// "I" is not the capital of "i", and a header line or a name would not be found. This header
// depends only on the standard library, so that programs and stand-ins may include it as well.
#ifndef COMMON_ASCII_H
#define COMMON_ASCII_H

#include <algorithm>
#include <string_view>

namespace kspool {

constexpr char asciiLower(char c) noexcept {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

constexpr bool sameLetter(char a, char b) noexcept {
    return asciiLower(a) == asciiLower(b);
}

constexpr bool sameText(std::string_view a, std::string_view b) noexcept {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), sameLetter);
}

constexpr bool beginsWith(std::string_view text, std::string_view prefix) noexcept {
    return sameText(text.substr(0, prefix.size()), prefix);
}

constexpr bool contains(std::string_view text, std::string_view part) noexcept {
    return std::search(text.begin(), text.end(), part.begin(), part.end(), sameLetter) !=
           text.end();
}

/// The length in bytes of the first character of a text; 0 for a control character, which a
/// terminal would interpret, and for a byte outside well-formed UTF-8, which may be a control
/// character in another encoding. C1 (U+0080 to U+009F) are control characters too: U+009B means
/// ESC [.
constexpr size_t shownLength(std::string_view text) noexcept {
    const auto byte = [=](size_t i) {
        return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
    };
    const auto isWithin = [=](size_t i, unsigned least, unsigned most) {
        return byte(i) >= least && byte(i) <= most;
    };
    const unsigned lead = byte(0);
    if (lead < 0x80) return lead >= 0x20 && lead != 0x7f ? 1 : 0;
    if (lead < 0xc2 || lead > 0xf4) return 0;
    const size_t length = lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
    // The second byte excludes C1, overlong forms, surrogates, and what lies above U+10FFFF.
    const unsigned least = lead == 0xc2 || lead == 0xe0 ? 0xa0 : lead == 0xf0 ? 0x90 : 0x80;
    const unsigned most = lead == 0xed ? 0x9f : lead == 0xf4 ? 0x8f : 0xbf;
    if (!isWithin(1, least, most)) return 0;
    for (size_t i = 2; i < length; ++i)
        if (!isWithin(i, 0x80, 0xbf)) return 0;
    return length;
}

/// Passes a text to `put` in pieces, with each byte that shownLength() refuses as \xHH. An LF is
/// passed unescaped as a piece of its own, so that the caller decides whether it may end a line. A
/// backslash is not escaped.
template <typename Put>
constexpr void visible(std::string_view text, Put put) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    while (!text.empty()) {
        size_t shown = 0;
        for (size_t next = 1; next > 0 && shown < text.size(); shown += next)
            next = shownLength(text.substr(shown));
        if (shown > 0) put(text.substr(0, shown));
        text.remove_prefix(shown);
        if (text.empty()) return;
        const auto byte = static_cast<unsigned char>(text.front());
        const char code[] = {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]};
        put(byte == '\n' ? text.substr(0, 1) : std::string_view(code, sizeof code));
        text.remove_prefix(1);
    }
}

}  // namespace kspool

#endif
