// A real folder as the content of the name space.
#ifndef SANDBOX_STORE_FOLDER_H
#define SANDBOX_STORE_FOLDER_H

#include <cstdint>
#include <string>

#include "sandbox/store/names.h"

namespace sandbox {

/// Places the names, sizes and times of all files and folders below `folder`, and reads no
/// contents. Returns the number of entries that are left out: neither file nor folder (a symbolic
/// link, which is not followed, a socket), or with a name that the name space refuses. Part of the
/// caller's transaction. Throws std::exception, DatabaseError among others.
uint64_t placeFolder(NameSpace& names, const std::string& folder, int64_t now);

}  // namespace sandbox

#endif
