// Texts that a program is given: a file, or standard input.
#ifndef TOOLS_SHARED_INPUT_H
#define TOOLS_SHARED_INPUT_H

#include <string>

namespace tool {

/// All bytes of a file, or of standard input for an empty path and "-". Throws Failure with kUsage
/// when they cannot be read: a folder can be opened, and only fails then.
std::string readInput(const std::string& path);

}  // namespace tool

#endif
