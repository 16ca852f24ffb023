// Files that are complete or not there.
#ifndef SANDBOX_SETUP_FILES_H
#define SANDBOX_SETUP_FILES_H

#include <sys/types.h>

#include <string>

namespace sandbox {

/// Makes a file that only its owner may read: passwords and keys are among them. Throws
/// std::runtime_error, also when the file exists.
void writeFile(const std::string& path, const std::string& text);

/// Puts a file in place of another by rename: a reader never sees half of it. `mode` is that of the
/// new one, less the umask. A run that is killed may leave PATH.new behind. Throws
/// std::runtime_error.
void replaceFile(const std::string& path, const std::string& text, mode_t mode);

/// Returns when a file, or a folder's names, are on the disk. Throws std::runtime_error.
void sync(const std::string& path);

}  // namespace sandbox

#endif
