// A platform that tests link in place of the real one: it records each call with its ordered
// arguments, and its message calls spoil errno and the status slot, as real ones might.
#ifndef TESTS_SCRIPTED_PLATFORM_H
#define TESTS_SCRIPTED_PLATFORM_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

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

/// A text as the record shows it: quoted, long ones cut, with their length.
std::string quoted(const char* text);

/// What one call of the configuration reader, the transport or their like gives back.
struct Reply {
    uint32_t status = 0;  ///< also left in the slot by calls that return none
    uint32_t eventCode = 0;
    std::optional<std::string> data, severity, serverAddress, sourceApplication, description;
    std::function<void()> meanwhile = {};  ///< what else happens while the call is under way
};

/// Adds a reply for the next call of that name. Without one, calls succeed and bring nothing.
void queueReply(const std::string& call, const Reply& reply);

/// Forgets the replies that were not taken.
void forgetQueued();

/// What the configuration file holds, by the offsets of section and entry.
void configValue(int section, int entry, const std::string& value);

/// Whether the calls of the configuration reader are recorded. They are unless told otherwise.
void recordConfiguration(bool recorded);

/// Forgets the record and the names, the replies and the configuration; trace switch off, slot 0.
void reset();

}  // namespace scripted

#endif
