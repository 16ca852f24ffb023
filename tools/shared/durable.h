// Replacing a small file so that a whole file is there at any time, also after a crash.
#ifndef TOOLS_SHARED_DURABLE_H
#define TOOLS_SHARED_DURABLE_H

#include <optional>
#include <string>

namespace tool {

/// The text of a file; nothing when there is no file. Throws Failure when there is one that cannot
/// be read, or is no regular file.
std::optional<std::string> readWhole(const std::string& path);

/// Writes the text to PATH.new, syncs, and renames to `path`, which must not be a symbolic link
/// that matters: a link is replaced. The new file has the mode of the old one, 0600 without one.
/// The caller keeps other writers away. Throws Failure; the old file is then as it was.
void replaceWhole(const std::string& path, const std::string& text);

}  // namespace tool

#endif
