#include "sandbox/store/folder.h"

#include <sys/stat.h>

#include <filesystem>

#include "sandbox/store/event.h"

namespace sandbox {

uint64_t placeFolder(NameSpace& names, const std::string& folder, int64_t now) {
    namespace fs = std::filesystem;
    uint64_t leftOut = 0;
    // A folder without read permission is placed as an empty one.
    const auto options = fs::directory_options::skip_permission_denied;
    for (auto at = fs::recursive_directory_iterator(folder, options);
         at != fs::recursive_directory_iterator(); ++at) {
        struct stat status {};
        const std::string path = at->path().string();
        if (lstat(path.c_str(), &status) != 0 ||
            !(S_ISREG(status.st_mode) || S_ISDIR(status.st_mode))) {
            ++leftOut;
            continue;
        }
        const bool file = S_ISREG(status.st_mode);
        try {
            names.place("/" + at->path().lexically_relative(folder).string(), file ? 'f' : 'd',
                        file ? status.st_size : 0, status.st_mtime, now);
        } catch (const Event&) {
            ++leftOut;
            // Each entry below would be refused for the same name, and counted as well.
            if (!file) at.disable_recursion_pending();
        }
    }
    return leftOut;
}

}  // namespace sandbox
