// Comparison of texts without regard to ASCII case. strcasecmp() and its relatives follow the
// locale of the program: in a Turkish one "I" is not the capital of "i", and a header line or a
// name would not be found. This header depends on the standard library alone, so that programs and
// stand-ins may include it as well.
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

}  // namespace kspool

#endif
