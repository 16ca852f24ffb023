// Texts that all programs write alike: errors, sizes, counts, times.
#ifndef TOOLS_SHARED_TEXT_H
#define TOOLS_SHARED_TEXT_H

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

namespace tool {

/// What the programs exit with. A program that answers a question (kspool-cache) does as diff and
/// cmp do: 0 for yes, kExitNo, and kExitTrouble for whatever kept it from an answer.
enum ExitCode {
    kExitOk = 0,
    kExitFailed = 1,   ///< the work could not be done
    kExitUsage = 2,    ///< bad options or arguments
    kExitPartial = 3,  ///< done, but something was left out and reported

    kExitNothing = 10,     ///< what was asked for is not there
    kExitPermission = 12,  ///< the server denied it
    kExitNetwork = 13,     ///< no answer from the server

    kExitNo = 1,       ///< the answer is no: damaged, different
    kExitTrouble = 2,  ///< no answer, bad options included
};

/// A text that the library allocated for its caller.
struct FreeText {
    void operator()(char* text) const { free(text); }
};
using LibraryText = std::unique_ptr<char, FreeText>;

/// Writes "PROGRAM: TEXT" as one line on stderr.
void complain(const std::string& program, const std::string& text);

/// "1.50 GiB", "512 B".
std::string humanBytes(double bytes);

/// "1,234,567".
std::string humanCount(uint64_t count);

/// "850 ns", "12.3 ms", "4.5 s".
std::string humanSeconds(double seconds);

/// Seconds since 1970 as local time: "2026-01-31 23:59:59", and "2026-01-31T23:59:59+01:00".
std::string localTime(int64_t seconds);
std::string isoTime(int64_t seconds);

/// A name as a terminal may show it: bytes that the locale cannot print, and backslashes, as \xHH.
std::string printable(const std::string& name);

}  // namespace tool

#endif
