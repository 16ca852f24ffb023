#include "tools/tool_text.h"

#include <array>
#include <cstdio>
#include <cwchar>
#include <cwctype>

namespace tool {
namespace {

std::string formatted(const char* format, double number, const char* unit) {
    std::array<char, 64> text{};
    snprintf(text.data(), text.size(), format, number, unit);
    return text.data();
}

}  // namespace

void complain(const std::string& program, const std::string& text) {
    fprintf(stderr, "%s: %s\n", program.c_str(), text.c_str());
}

std::string humanBytes(double bytes) {
    constexpr std::array kUnits = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    size_t unit = 0;
    while (bytes >= 1024 && unit + 1 < kUnits.size()) {
        bytes /= 1024;
        ++unit;
    }
    return formatted(unit == 0 ? "%.0f %s" : "%.2f %s", bytes, kUnits[unit]);
}

std::string humanCount(uint64_t count) {
    const std::string digits = std::to_string(count);
    std::string text;
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0) text += ',';
        text += digits[i];
    }
    return text;
}

std::string humanSeconds(double seconds) {
    if (seconds < 1e-6) return formatted("%.0f %s", seconds * 1e9, "ns");
    if (seconds < 1e-3) return formatted("%.1f %s", seconds * 1e6, "us");
    if (seconds < 1) return formatted("%.1f %s", seconds * 1e3, "ms");
    return formatted("%.2f %s", seconds, "s");
}

std::string printable(const std::string& name) {
    std::string text;
    std::mbstate_t state{};
    for (size_t at = 0; at < name.size();) {
        wchar_t wide = 0;
        const size_t length = std::mbrtowc(&wide, name.data() + at, name.size() - at, &state);
        const bool whole = length != 0 && length <= name.size() - at;
        if (whole && name[at] != '\\' && std::iswprint(static_cast<std::wint_t>(wide)) != 0) {
            text.append(name, at, length);
            at += length;
            continue;
        }
        std::array<char, 8> code{};
        snprintf(code.data(), code.size(), "\\x%02x", static_cast<unsigned char>(name[at]));
        text += code.data();
        state = {};
        ++at;
    }
    return text;
}

}  // namespace tool
