// What is put into the name space from outside: lists of files, real folders.
#include <sys/stat.h>

#include <filesystem>

#include "sandbox/core.h"

namespace sandbox {

void Core::select(const nlohmann::json& selections) {
    Transaction transaction(database_);
    for (const auto& one : selections) {
        selections_.add(one.at("number").get<uint32_t>(), one.value("tag", std::string()));
    }
    transaction.commit();
}

void Core::place(const nlohmann::json& files) {
    Transaction transaction(database_);
    for (const nlohmann::json& file : files) {
        names_.place(file.at("path").get<std::string>(), 'f', file.value("size", int64_t{0}),
                     file.value("mtime", now()), now());
    }
    transaction.commit();
}

uint64_t Core::placeFolder(const std::string& folder) {
    namespace fs = std::filesystem;
    uint64_t leftOut = 0;
    Transaction transaction(database_);
    // Symbolic links are not followed; a folder that may not be read looks empty.
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
            names_.place("/" + at->path().lexically_relative(folder).string(), file ? 'f' : 'd',
                         file ? status.st_size : 0, status.st_mtime, now());
        } catch (const Event&) {
            ++leftOut;
            if (!file) at.disable_recursion_pending();
        }
    }
    transaction.commit();
    return leftOut;
}

}  // namespace sandbox
