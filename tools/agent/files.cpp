#include "tools/agent/files.h"

#include <fts.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>

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

/// Files of the kernel's own file systems look regular, but some of them never end.
bool belongsToKernel(const char* path) {
    struct statfs system {};
    if (statfs(path, &system) != 0) return false;
    return system.f_type == PROC_SUPER_MAGIC || system.f_type == SYSFS_MAGIC;
}

void visitEntry(FTS* tree, FTSENT& entry, const FileVisitor& visitor) {
    const bool otherSystem = entry.fts_level == FTS_ROOTLEVEL ||
                             entry.fts_statp->st_dev != entry.fts_parent->fts_statp->st_dev;
    switch (entry.fts_info) {
        case FTS_D:
            if (otherSystem && belongsToKernel(entry.fts_path)) {
                visitor.problem(entry.fts_path, "is the kernel's, not scanned");
                fts_set(tree, &entry, FTS_SKIP);
            }
            break;
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
        default:  // folders on the way out, symbolic links, devices, pipes, sockets
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
            FTSENT* entry = fts_read(tree.get());
            if (entry == nullptr) break;
            visitEntry(tree.get(), *entry, visitor);
        }
        if (errno != 0) visitor.problem(path, strerror(errno));
    }
}

}  // namespace agent
