// Common formats of all programs: sizes, counts, times, names; and lines of fields.
#ifndef TOOLS_SHARED_TEXT_H
#define TOOLS_SHARED_TEXT_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tool {

/// "1.50 GiB", "512 B".
std::string humanBytes(uint64_t bytes);

/// "1,234,567".
std::string humanCount(uint64_t count);

/// "1 file", "1,234 files".
std::string counted(uint64_t count, const std::string& one, const std::string& many);

/// "850 ns", "12.3 ms", "4.5 s".
std::string humanSeconds(double seconds);

/// Seconds since 1970 as local time: "2026-01-31 23:59:59", and "2026-01-31T23:59:59+01:00".
std::string localTime(int64_t seconds);
std::string isoTime(int64_t seconds);

/// A name made safe for a terminal: bytes that the locale cannot print, and backslashes, as \xHH.
std::string printable(const std::string& name);

/// The fields of a line, which are separated by `|`: one more than there are separators.
std::vector<std::string> fieldsOf(std::string_view line);

}  // namespace tool

#endif
