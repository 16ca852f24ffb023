// Replacing a small file so that a complete file exists at any time, even after a crash.
#ifndef TOOLS_SHARED_DURABLE_H
#define TOOLS_SHARED_DURABLE_H

#include <optional>
#include <string>

namespace tool {

/// The text of a file; nullopt if there is no file. Throws Failure if the file cannot be read, or
/// is not a regular file.
std::optional<std::string> readWhole(const std::string& path);

/// Writes the text to PATH.new, syncs it, and renames it to `path`. A symbolic link at `path` is
/// replaced itself, not its target. The new file has the mode of the old one, or 0600 if there was
/// none. Throws Failure, and the old file is then unchanged. REQUIRES: no other writers.
void replaceWhole(const std::string& path, const std::string& text);

}  // namespace tool

#endif
