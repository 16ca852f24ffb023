// A platform that tests link in place of the real one: it records each call with its ordered
// arguments, and its message calls spoil errno and the status slot, as real ones might.
#ifndef TESTS_SCRIPTED_PLATFORM_H
#define TESTS_SCRIPTED_PLATFORM_H

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

/// Forgets the record and the names; trace switch off, slot 0.
void reset();

}  // namespace scripted

#endif
