// Paths of the name space. A normal path starts with a slash and has neither a double slash nor one
// at its end; the root is the empty text.
#ifndef SANDBOX_STORE_PATH_H
#define SANDBOX_STORE_PATH_H

#include <string>
#include <string_view>

namespace sandbox {

/// The normal path of a client's text. Throws Event when the text is not a path.
std::string normalPath(std::string_view text);

/// A normal path for a description: the root is "/".
std::string shownPath(const std::string& path);

/// REQUIRES: a normal path, not the root.
std::string parentOf(const std::string& path);

}  // namespace sandbox

#endif
