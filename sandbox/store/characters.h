// Classes of ASCII characters and hexadecimal digits, independent of the locale.
#ifndef SANDBOX_STORE_CHARACTERS_H
#define SANDBOX_STORE_CHARACTERS_H

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

namespace sandbox {

constexpr char kCapitalHex[] = "0123456789ABCDEF";
constexpr char kSmallHex[] = "0123456789abcdef";

constexpr bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

constexpr bool isLetterOrDigit(char c) {
    return isDigit(c) || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

/// The value of a capital hexadecimal digit, -1 for any other character.
constexpr int capitalHexValue(char c) {
    if (isDigit(c)) return c - '0';
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

constexpr bool isHexDigit(char c) {
    return capitalHexValue(c) >= 0 || (c >= 'a' && c <= 'f');
}

/// The controls of ASCII.
constexpr bool isControl(char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

/// True for a text that can be a field of an answer's line. A '|' would end the field and a line
/// end the line, so that the client would read other fields than were stored.
inline bool isField(std::string_view text) {
    return std::none_of(text.begin(), text.end(), [](char c) { return c == '|' || isControl(c); });
}

/// Appends the two digits of a byte; `digits` is kCapitalHex or kSmallHex.
inline void appendHex(std::string& text, uint8_t byte, const char* digits) {
    text += digits[byte >> 4];
    text += digits[byte & 15];
}

}  // namespace sandbox

#endif
