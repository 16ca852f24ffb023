// Writing files completely or not at all.
#ifndef SANDBOX_SETUP_FILES_H
#define SANDBOX_SETUP_FILES_H

#include <sys/types.h>

#include <string>

namespace sandbox {

/// Creates a file that only its owner may read, since it may hold passwords or keys. Throws
/// std::runtime_error, also if the file exists.
void writeFile(const std::string& path, const std::string& text);

/// Replaces a file by rename, so that a reader never sees half of it. `mode`, less the umask, is
/// that of the new file. A run that is killed may leave PATH.new behind. Throws std::runtime_error.
void replaceFile(const std::string& path, const std::string& text, mode_t mode);

/// Syncs a file, or the names in a folder, to disk. Throws std::runtime_error.
void sync(const std::string& path);

}  // namespace sandbox

#endif
