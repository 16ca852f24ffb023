// The calls that tests count and make fail, and the choice of the one that fails. For C and C++.
#ifndef TESTS_FAILING_CALLS_H
#define TESTS_FAILING_CALLS_H

#include <stddef.h>

// Rows: enumerator, type, name, parameters, arguments, the result of a failure, its errno. CMake
// has the linker wrap each call of a CALL row; libcurl makes those of a HOOK row, which no linker
// sees.
// clang-format off
#define MEMORY_CALLS(CALL) \
    CALL(kCalloc, void*, calloc, (size_t count, size_t size), (count, size), NULL, ENOMEM) \
    CALL(kRealloc, void*, realloc, (void* old, size_t size), (old, size), NULL, ENOMEM)
#define TEXT_CALLS(CALL) \
    CALL(kStrdup, char*, strdup, (const char* text), (text), NULL, ENOMEM) \
    CALL(kStrndup, char*, strndup, (const char* text, size_t most), (text, most), NULL, ENOMEM)
#define FILE_CALLS(CALL) \
    CALL(kOpen, int, open, (const char* path, int flags, mode_t mode), (path, flags, mode), -1, EMFILE) \
    CALL(kRead, ssize_t, read, (int fd, void* bytes, size_t length), (fd, bytes, length), -1, EIO) \
    CALL(kWrite, ssize_t, write, (int fd, const void* bytes, size_t length), (fd, bytes, length), -1, ENOSPC)
#define PLACING_CALLS(CALL) \
    CALL(kRealpath, char*, realpath, (const char* path, char* room), (path, room), NULL, EACCES) \
    CALL(kLstat, int, lstat, (const char* path, struct stat* found), (path, found), -1, EACCES) \
    CALL(kFstat, int, fstat, (int fd, struct stat* found), (fd, found), -1, EIO) \
    CALL(kFcntl, int, fcntl, (int fd, int command, void* argument), (fd, command, argument), -1, ENOLCK) \
    CALL(kPread, ssize_t, pread, (int fd, void* bytes, size_t length, off_t at), (fd, bytes, length, at), -1, EIO) \
    CALL(kPwrite, ssize_t, pwrite, (int fd, const void* bytes, size_t length, off_t at), (fd, bytes, length, at), -1, ENOSPC) \
    CALL(kReadlink, ssize_t, readlink, (const char* path, char* text, size_t size), (path, text, size), -1, EACCES) \
    CALL(kFtruncate, int, ftruncate, (int fd, off_t length), (fd, length), -1, EIO) \
    CALL(kFchown, int, fchown, (int fd, uid_t owner, gid_t group), (fd, owner, group), -1, EPERM) \
    CALL(kUnlink, int, unlink, (const char* path), (path), -1, EACCES) \
    CALL(kFchmod, int, fchmod, (int fd, mode_t mode), (fd, mode), -1, EPERM) \
    CALL(kFallocate, int, fallocate, (int fd, int mode, off_t from, off_t length), (fd, mode, from, length), -1, ENOSPC) \
    CALL(kFsync, int, fsync, (int fd), (fd), -1, EIO) \
    CALL(kRename, int, rename, (const char* from, const char* to), (from, to), -1, EACCES)
#define PAGE_CALLS(CALL) \
    CALL(kMmap, void*, mmap, (void*, size_t, int, int, int, off_t), , , ) \
    CALL(kMlock, int, mlock, (const void*, size_t), , , ) \
    CALL(kMunlock, int, munlock, (const void*, size_t), , , ) \
    CALL(kLseek, off_t, lseek, (int, off_t, int), , , )
#define OTHER_CALLS(CALL) \
    CALL(kGetrlimit, int, getrlimit, (__rlimit_resource_t, struct rlimit*), , , ) \
    CALL(kSnprintf, int, snprintf, (char*, size_t, const char*, ...), , , ) \
    CALL(kFree, void, free, (void*), , , ) \
    CALL(kMunmap, int, munmap, (void*, size_t), , , ) \
    CALL(kMunlockall, int, munlockall, (), , , ) \
    CALL(kMadvise, int, madvise, (void*, size_t, int), , , ) \
    CALL(kClose, int, close, (int), , , )
#define SOCKET_CALLS(HOOK) \
    HOOK(kConnect, int, connect, (int fd, const sockaddr* to, socklen_t length), (fd, to, length), -1, ECONNRESET) \
    HOOK(kSend, ssize_t, send, (int fd, const void* bytes, size_t length, int flags), (fd, bytes, length, flags), -1, ECONNRESET) \
    HOOK(kRecv, ssize_t, recv, (int fd, void* bytes, size_t length, int flags), (fd, bytes, length, flags), -1, ECONNRESET) \
    HOOK(kPoll, int, poll, (pollfd* fds, nfds_t count, int timeout), (fds, count, timeout), -1, ECONNRESET)
// clang-format on
#define FAILING_CALLS(CALL) \
    MEMORY_CALLS(CALL) TEXT_CALLS(CALL) FILE_CALLS(CALL) PLACING_CALLS(CALL) PAGE_CALLS(CALL)

struct FailurePlan {
    size_t nth;      ///< the call that fails; 0: none
    int fromThenOn;  ///< also every call after it
    size_t seen, failed;
};

/// Counts a call; true when it is to fail.
static inline int failsNow(struct FailurePlan* plan) {
    const size_t now = __atomic_add_fetch(&plan->seen, 1, __ATOMIC_RELAXED);
    if (plan->nth == 0 || now < plan->nth || (now > plan->nth && !plan->fromThenOn)) return 0;
    __atomic_add_fetch(&plan->failed, 1, __ATOMIC_RELAXED);
    return 1;
}

#endif
