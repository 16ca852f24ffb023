// A platform that tests link in place of the real one: it records each call with its ordered
// arguments, and its message calls spoil errno and the status slot, as real ones might.
#ifndef TESTS_SCRIPTED_PLATFORM_H
#define TESTS_SCRIPTED_PLATFORM_H

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>

#include "tests/support/operations.h"

namespace scripted {

/// Bytes of a magic header of this platform.
inline constexpr int kMagicLength = 19;

/// Adds a line to the record.
void record(const std::string& line);

/// The lines recorded since the last call.
std::string takeRecord();

/// A pointer as the record names it: #1 for the first one met, #2 for the next, NULL.
std::string pointerName(const void* pointer);

/// Names pointers from #1 again.
void forgetPointers();

/// A value as the record shows it, and several of them with commas.
inline std::string shown(const char* text) {
    return operations::quoted(text);
}
inline std::string shown(const std::string& shownBefore) {
    return shownBefore;
}
template <std::integral Number>
std::string shown(Number number) {
    return std::to_string(number);
}
template <typename... Values>
std::string listed(const Values&... values) {
    std::string out;
    ((out += (out.empty() ? "" : ", ") + shown(values)), ...);
    return out;
}

/// What one call of the configuration reader, the transport or their like gives back.
struct Reply {
    uint32_t status = 0;  ///< also left in the slot by calls that return none
    uint32_t eventCode = 0;
    std::optional<std::string> data = {}, severity = {}, serverAddress = {};
    std::optional<std::string> sourceApplication = {}, description = {};
    std::function<void()> meanwhile = {};  ///< what else happens while the call is under way
};

/// Records a call and gives back its reply. In a program without the scripted platform, which links
/// the scripted transport alone, the program defines this.
Reply answered(const std::string& call, const std::string& arguments, bool mayFail = true);

/// The replies to the next calls of that name. Without one, calls succeed and bring nothing.
std::deque<Reply>& queued(const std::string& call);

/// Forgets the replies that were not taken.
void forgetQueued();

/// What the configuration file holds, by the offsets of section and entry.
void configValue(int section, int entry, const std::string& value);

/// The offsets of two names in their tables.
std::string nameOffsets(const char* section, const char* entry);

/// Whether the calls of the configuration reader are recorded. They are unless told otherwise.
void recordConfiguration(bool recorded);

/// Forgets the replies and the configuration.
void forgetReplies();

/// Forgets the record and the names, the replies and the configuration; trace switch off, slot 0.
void reset();

}  // namespace scripted

#endif
