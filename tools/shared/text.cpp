#include "tools/shared/text.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <cwchar>
#include <cwctype>

namespace tool {
namespace {

std::string formatted(const char* format, double number, const char* unit) {
    std::array<char, 64> text{};
    snprintf(text.data(), text.size(), format, number, unit);
    return text.data();
}

/// The bare number when the year does not fit into a calendar date.
std::string calendarTime(int64_t seconds, const char* format) {
    const std::time_t time = seconds;
    std::tm parts{};
    std::array<char, 64> text{};
    if (localtime_r(&time, &parts) == nullptr ||
        std::strftime(text.data(), text.size(), format, &parts) == 0) {
        return std::to_string(seconds);
    }
    return text.data();
}

}  // namespace

std::string humanBytes(uint64_t bytes) {
    constexpr std::array kUnits = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    auto shown = static_cast<double>(bytes);
    size_t unit = 0;
    while (shown >= 1024 && unit + 1 < kUnits.size()) {
        shown /= 1024;
        ++unit;
    }
    return formatted(unit == 0 ? "%.0f %s" : "%.2f %s", shown, kUnits[unit]);
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

std::string counted(uint64_t count, const std::string& one, const std::string& many) {
    return humanCount(count) + ' ' + (count == 1 ? one : many);
}

std::string humanSeconds(double seconds) {
    if (seconds < 1e-6) return formatted("%.0f %s", seconds * 1e9, "ns");
    if (seconds < 1e-3) return formatted("%.1f %s", seconds * 1e6, "us");
    if (seconds < 1) return formatted("%.1f %s", seconds * 1e3, "ms");
    return formatted("%.2f %s", seconds, "s");
}

std::string localTime(int64_t seconds) {
    return calendarTime(seconds, "%Y-%m-%d %H:%M:%S");
}

std::string isoTime(int64_t seconds) {
    std::string text = calendarTime(seconds, "%Y-%m-%dT%H:%M:%S%z");
    // strftime() writes the zone as +0100; ISO 8601 wants +01:00 after a time with colons.
    if (text.find('T') != std::string::npos) text.insert(text.size() - 2, ":");
    return text;
}

std::string printable(const std::string& name) {
    std::string text;
    std::mbstate_t state{};
    for (size_t at = 0; at < name.size();) {
        wchar_t wide = 0;
        const size_t length = std::mbrtowc(&wide, name.data() + at, name.size() - at, &state);
        // mbrtowc() returns huge numbers for invalid and truncated sequences, and 0 for NUL.
        const bool valid = length != 0 && length <= name.size() - at;
        if (valid && name[at] != '\\' && std::iswprint(static_cast<std::wint_t>(wide)) != 0) {
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

std::vector<std::string> fieldsOf(std::string_view line) {
    std::vector<std::string> fields;
    for (;;) {
        const size_t end = line.find('|');
        fields.emplace_back(line.substr(0, end));
        if (end == std::string_view::npos) return fields;
        line.remove_prefix(end + 1);
    }
}

}  // namespace tool
