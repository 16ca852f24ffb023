// Input texts of programs: from a file, or from standard input.
#ifndef TOOLS_SHARED_INPUT_H
#define TOOLS_SHARED_INPUT_H

#include <string>

namespace tool {

/// All bytes of a file, or of standard input for an empty path and "-". Throws Failure with kUsage
/// if they cannot be opened or read: opening a folder succeeds, and only reading it fails.
std::string readInput(const std::string& path);

}  // namespace tool

#endif
