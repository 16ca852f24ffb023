// Texts that all programs write alike: errors, sizes, counts, times.
#ifndef TOOLS_TOOL_TEXT_H
#define TOOLS_TOOL_TEXT_H

#include <cstdint>
#include <string>

namespace tool {

/// What the programs exit with.
enum ExitCode {
    kExitOk = 0,
    kExitFailed = 1,   ///< the work could not be done
    kExitUsage = 2,    ///< bad options or arguments
    kExitPartial = 3,  ///< done, but something was left out and reported
};

/// Writes "PROGRAM: TEXT" as one line on stderr.
void complain(const std::string& program, const std::string& text);

/// "1.50 GiB", "512 B".
std::string humanBytes(double bytes);

/// "1,234,567".
std::string humanCount(uint64_t count);

/// "850 ns", "12.3 ms", "4.5 s".
std::string humanSeconds(double seconds);

/// A name as a terminal may show it: bytes that the locale cannot print, and backslashes, as \xHH.
std::string printable(const std::string& name);

}  // namespace tool

#endif
