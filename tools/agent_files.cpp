#include "tools/agent_files.h"

#include <fts.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace agent {
namespace {

struct CloseTree {
    void operator()(FTS* tree) const { fts_close(tree); }
};

int byName(const FTSENT** left, const FTSENT** right) {
    return strcmp((*left)->fts_name, (*right)->fts_name);
}

void visitEntry(const FTSENT& entry, const FileVisitor& visitor) {
    switch (entry.fts_info) {
        case FTS_F:
            visitor.file(entry.fts_path, static_cast<uint64_t>(entry.fts_statp->st_size));
            break;
        case FTS_DNR:
        case FTS_ERR:
        case FTS_NS:
            visitor.problem(entry.fts_path, strerror(entry.fts_errno));
            break;
        case FTS_DC:
            visitor.problem(entry.fts_path, "folder contains itself");
            break;
        default:  // folders on the way in and out, symbolic links, devices, pipes, sockets
            break;
    }
}

}  // namespace

void walkFiles(const std::vector<std::string>& paths, bool oneFileSystem,
               const FileVisitor& visitor) {
    for (const std::string& path : paths) {
        std::string name = path;
        char* const names[] = {name.data(), nullptr};
        const int options = FTS_PHYSICAL | FTS_NOCHDIR | (oneFileSystem ? FTS_XDEV : 0);
        const std::unique_ptr<FTS, CloseTree> tree(fts_open(names, options, byName));
        if (tree == nullptr) {
            visitor.problem(path, strerror(errno));
            continue;
        }
        for (;;) {
            errno = 0;
            const FTSENT* entry = fts_read(tree.get());
            if (entry == nullptr) break;
            visitEntry(*entry, visitor);
        }
        if (errno != 0) visitor.problem(path, strerror(errno));
    }
}

std::string pathProblem(const std::string& path) {
    struct stat status {};
    if (path.empty()) return "an empty path names nothing";
    if (lstat(path.c_str(), &status) != 0) return strerror(errno);
    if (S_ISLNK(status.st_mode)) return "is a symbolic link, which is not followed";
    if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) return "is neither file nor folder";
    return {};
}

}  // namespace agent
