/*
 * For LD_PRELOAD: each call that changes a file below the folder KSPOOL_RECORD_ROOT goes into the
 * file KSPOOL_RECORD_LOG with its bytes when it is done, each sync too, and each sending before it
 * begins. Changes and syncs are made one at a time, so that their order is that of the records.
 * Sends wait for nobody: what is told during a sync is not told after it. Programs may share a log.
 *
 * A record: "KIND NUMBER PATH-LENGTH LENGTH\n", the path, the bytes. A file is named by the path
 * that it has at the time. stdio and mkstemp() call the system past this library; a comparison with
 * strace shows whether a program changes files by them.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static const char* root;
static int logFile = -1;

__attribute__((constructor)) static void begin(void) {
    root = getenv("KSPOOL_RECORD_ROOT");
    logFile = (int)syscall(SYS_openat, AT_FDCWD, getenv("KSPOOL_RECORD_LOG"),
                           O_WRONLY | O_APPEND | O_CLOEXEC);
    if (root == NULL || logFile < 0) abort();
}

static void note(const char* kind, int64_t number, const char* path, const void* bytes,
                 size_t length) {
    char head[80];
    const int size = snprintf(head, sizeof head, "%s %lld %zu %zu\n", kind, (long long)number,
                              strlen(path), length);
    const struct iovec parts[] = {
        {head, (size_t)size}, {(char*)path, strlen(path)}, {(void*)bytes, length}};
    const size_t all = (size_t)size + strlen(path) + length;
    if (syscall(SYS_writev, logFile, parts, 3) != (long)all) abort();
}

/* "" for what has no path, such as a socket. */
static const char* pathOf(int fd, char* room) {
    char link[40];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const ssize_t length = readlink(link, room, PATH_MAX);
    room[length > 0 ? length : 0] = '\0';
    return room;
}

static int below(const char* path) {
    const size_t length = strlen(root);
    return strncmp(path, root, length) == 0 && (path[length] == '/' || path[length] == '\0');
}

static const char* whole(int folder, const char* path, char* room) {
    if (*path == '/') return path;
    if (folder == AT_FDCWD ? getcwd(room, PATH_MAX) == NULL : *pathOf(folder, room) == '\0')
        abort();
    const size_t length = strlen(room);
    snprintf(room + length, PATH_MAX - length, "/%s", path);
    return room;
}

static void noteFile(const char* kind, int fd, int64_t number, const void* bytes, size_t length) {
    char room[PATH_MAX + 1];
    if (below(pathOf(fd, room))) note(kind, number, room, bytes, length);
}

static void noteName(const char* kind, int folder, const char* path, int64_t number,
                     const char* other) {
    char room[PATH_MAX + 1], otherRoom[PATH_MAX + 1];
    const char* second = other != NULL ? whole(AT_FDCWD, other, otherRoom) : "";
    path = whole(folder, path, room);
    if (below(path)) note(kind, number, path, second, strlen(second));
}

static void noteOpen(int folder, const char* path, int flags) {
    if ((flags & (O_CREAT | O_TRUNC)) != 0) noteName("open", folder, path, flags, NULL);
}

/* After a write at the file's position, which is then behind the bytes. */
static void noteWritten(int fd, const struct iovec* parts, int count, int64_t done) {
    int64_t at = lseek(fd, 0, SEEK_CUR) - done;
    for (int i = 0; i < count; at += (int64_t)parts[i++].iov_len)
        noteFile("write", fd, at, parts[i].iov_base, parts[i].iov_len);
}

#define NEXT(name) ((__typeof__(&record_##name))dlsym(RTLD_NEXT, #name))
#define CALL(type, name, parameters, arguments, noted) \
    type record_##name parameters __asm__(#name);      \
    type record_##name parameters {                    \
        pthread_mutex_lock(&lock);                     \
        type result = NEXT(name) arguments;            \
        const int error = errno;                       \
        if (logFile >= 0 && (intptr_t)result >= 0) {   \
            noted;                                     \
        }                                              \
        pthread_mutex_unlock(&lock);                   \
        errno = error;                                 \
        return result;                                 \
    }
#define SENDING(name, parameters, arguments, bytes, length)    \
    ssize_t record_##name parameters __asm__(#name);           \
    ssize_t record_##name parameters {                         \
        note("send", 0, "", bytes, length < 16 ? length : 16); \
        return NEXT(name) arguments;                           \
    }
// clang-format off
#define OPEN(name) CALL(int, name, (const char* path, int flags, mode_t mode), (path, flags, mode), noteOpen(AT_FDCWD, path, flags))
#define OPENAT(name) CALL(int, name, (int in, const char* path, int flags, mode_t mode), (in, path, flags, mode), noteOpen(in, path, flags))
#define CREAT(name) CALL(int, name, (const char* path, mode_t mode), (path, mode), noteOpen(AT_FDCWD, path, O_CREAT | O_TRUNC))
#define PWRITE(name) CALL(ssize_t, name, (int fd, const void* bytes, size_t length, off_t at), (fd, bytes, length, at), noteFile("write", fd, at, bytes, (size_t)result))
#define TRUNCATE(name) CALL(int, name, (const char* path, off_t size), (path, size), noteName("size", AT_FDCWD, path, size, NULL))
#define FTRUNCATE(name) CALL(int, name, (int fd, off_t size), (fd, size), noteFile("size", fd, size, NULL, 0))
#define FALLOCATE(name) CALL(int, name, (int fd, int mode, off_t at, off_t length), (fd, mode, at, length), if (mode != FALLOC_FL_KEEP_SIZE) abort())
#define SYNC(name) CALL(int, name, (int fd), (fd), noteFile("sync", fd, 0, NULL, 0))
#define REMOVE(name) CALL(int, name, (const char* path), (path), noteName("remove", AT_FDCWD, path, 0, NULL))
#define MMAP(name) CALL(void*, name, (void* at, size_t length, int access, int how, int fd, off_t from), (at, length, access, how, fd, from), if (how & MAP_SHARED && access & PROT_WRITE) noteFile("map", fd, from, NULL, 0))
OPEN(open) OPEN(open64) OPEN(__open_2) OPEN(__open64_2)
OPENAT(openat) OPENAT(openat64) OPENAT(__openat_2) OPENAT(__openat64_2)
CREAT(creat) CREAT(creat64)
CALL(ssize_t, write, (int fd, const void* bytes, size_t length), (fd, bytes, length), noteWritten(fd, &(struct iovec){(void*)bytes, (size_t)result}, 1, result))
CALL(ssize_t, writev, (int fd, const struct iovec* parts, int count), (fd, parts, count), noteWritten(fd, parts, count, result))
PWRITE(pwrite) PWRITE(pwrite64)
TRUNCATE(truncate) TRUNCATE(truncate64)
FTRUNCATE(ftruncate) FTRUNCATE(ftruncate64)
FALLOCATE(fallocate) FALLOCATE(fallocate64)
SYNC(fsync) SYNC(fdatasync)
REMOVE(unlink) REMOVE(rmdir) REMOVE(remove)
CALL(int, unlinkat, (int in, const char* path, int flags), (in, path, flags), noteName("remove", in, path, 0, NULL))
CALL(int, rename, (const char* from, const char* to), (from, to), noteName("rename", AT_FDCWD, from, 0, to))
CALL(int, link, (const char* from, const char* to), (from, to), noteName("link", AT_FDCWD, from, 0, to))
CALL(int, mkdir, (const char* path, mode_t mode), (path, mode), noteName("mkdir", AT_FDCWD, path, 0, NULL))
CALL(int, mkdirat, (int in, const char* path, mode_t mode), (in, path, mode), noteName("mkdir", in, path, 0, NULL))
CALL(char*, mkdtemp, (char* path), (path), if (result != NULL) noteName("mkdir", AT_FDCWD, path, 0, NULL))
MMAP(mmap) MMAP(mmap64)
SENDING(send, (int fd, const void* bytes, size_t length, int flags), (fd, bytes, length, flags), bytes, length)
SENDING(sendmsg, (int fd, const struct msghdr* message, int flags), (fd, message, flags), message->msg_iov->iov_base, message->msg_iov->iov_len)
