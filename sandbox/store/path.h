// Paths of the name space.
#ifndef SANDBOX_STORE_PATH_H
#define SANDBOX_STORE_PATH_H

#include <string>
#include <string_view>

namespace sandbox {

/// A path without double slashes and without one at its end: the root is the empty text. Throws
/// Event when the text is no path.
std::string normalPath(std::string_view text);

/// For people: the root is "/".
std::string shownPath(const std::string& path);

std::string parentOf(const std::string& path);

}  // namespace sandbox

#endif
