#include "kscache/kscache_hold.h"

#include <fcntl.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <new>

#include "kscache/kscache_file.h"

namespace kspool {
namespace {

constexpr int kMostLinks = 40;  ///< as many as the system follows

/// The text of a symbolic link; NULL with errno set, EINVAL when there is no link at the path.
OwnedText linkText(const char* path) {
    char text[PATH_MAX];
    const ssize_t length = readlink(path, text, sizeof text - 1);
    if (length < 0) return {};
    text[length] = '\0';
    return OwnedText(strdup(text));
}

/// The target of a link at `path`: its text, relative to the folder of the link unless absolute.
OwnedText followed(const char* path, const char* link) {
    const char* slash = strrchr(path, '/');
    if (*link == '/' || slash == nullptr) return OwnedText(strdup(link));
    const OwnedText folder(strndup(path, static_cast<size_t>(slash - path) + 1));
    return folder != nullptr ? joined(folder.get(), link) : nullptr;
}

/// Resolves the folder of a path that does not exist. NULL for a path that ends with a slash, with
/// errno still ENOENT.
OwnedText inResolvedFolder(const char* path) {
    const char* slash = strrchr(path, '/');
    const char* name = slash != nullptr ? slash + 1 : path;
    if (*name == '\0') return {};
    const OwnedText folder(slash != nullptr ? strndup(path, static_cast<size_t>(name - path))
                                            : strdup("."));
    if (folder == nullptr) return {};
    const OwnedText resolved(realpath(folder.get(), nullptr));
    if (resolved == nullptr) return {};
    const OwnedText withSlash = joined(resolved.get(), "/");
    return withSlash != nullptr ? joined(withSlash.get(), name) : nullptr;
}

constexpr size_t kHolderRoom = 24;  ///< for a process id, the end of its line, and a NUL

/// A lock file is opened without waiting for anyone, as a pipe of that name would.
int openLock(const char* path) {
    constexpr int kFlags = O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
    const int fd = openToWrite(path, kFlags, 0600);
    struct stat found {};
    if (fd < 0 || (fstat(fd, &found) == 0 && S_ISREG(found.st_mode))) return fd;
    close(fd);
    errno = EINVAL;
    return -1;
}

/// Whether a holder can have written what is in a lock file. A loss of power may leave zeros.
bool isOfHolder(const char* text, size_t length) {
    if (length == kHolderRoom) return false;
    return std::all_of(text, text + length,
                       [](char c) { return (c >= '0' && c <= '9') || c == '\n' || c == '\0'; });
}

/// Opens the lock file of a cache file, unless it is somebody's file of another kind. Any status
/// but 0 is in the status slot and was logged.
uint32_t openLockOf(const char* function, const char* path, Descriptor& lock) {
    const OwnedText lockPath = joined(path, ".lock");
    if (lockPath == nullptr) return reportFailure(function, path, "name the lock file");
    Descriptor opened(openLock(lockPath.get()));
    if (opened.get() < 0) return reportFailure(function, lockPath.get(), "open the lock file");
    char text[kHolderRoom];
    const ssize_t length = pread(opened.get(), text, sizeof text, 0);
    if (length < 0) return reportFailure(function, lockPath.get(), "read the lock file");
    if (!isOfHolder(text, static_cast<size_t>(length)))
        return refuse(function, lockPath.get(), CR_STATUS_BAD_HANDLE, "not a lock file");
    lock = std::move(opened);
    return CR_STATUS_OK;
}

/// The process id in a lock file; 0 when there is none (yet).
long holderOf(int lock) {
    char text[kHolderRoom] = "";
    return pread(lock, text, sizeof text - 1, 0) > 0 ? strtol(text, nullptr, 10) : 0;
}

/// The process id is only for messages: a hold works without it, so a failure is only traced.
void writeHolder(int lock) {
    const ErrnoAndSlotGuard kept;
    char text[kHolderRoom];
    const int length = snprintf(text, sizeof text, "%ld\n", static_cast<long>(getpid()));
    if (ftruncate(lock, 0) != 0 || pwrite(lock, text, static_cast<size_t>(length), 0) != length)
        KS_TRACE("%s: the process id of the holder could not be written", "KSCacheHoldFile");
}

/// The bytes of a lock file that are locked, which it need not have.
enum LockedByte : off_t { kHoldByte = 0, kTurnByte = 1 };

struct flock lockOf(LockedByte byte, short type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_start = byte;
    lock.l_len = 1;
    return lock;
}

/// Locks (F_WRLCK) or unlocks (F_UNLCK) a byte without waiting.
bool setLock(int fd, LockedByte byte, short type) {
    struct flock lock = lockOf(byte, type);
    return fcntl(fd, F_OFD_SETLK, &lock) == 0;
}

/// Whether a byte is locked through another descriptor.
bool isLocked(int fd, LockedByte byte) {
    struct flock lock = lockOf(byte, F_WRLCK);
    return fcntl(fd, F_OFD_GETLK, &lock) != 0 || lock.l_type != F_UNLCK;
}

bool isTaken() {
    return errno == EAGAIN || errno == EACCES;
}

/// For a hold's byte that could not be locked.
uint32_t reportNotHeld(const char* function, const char* path, int lock) {
    if (!isTaken()) return reportFailure(function, path, "lock the file");
    const long holder = holderOf(lock);
    const uint32_t status = storeStatus(CR_STATUS_BUSY);
    if (holder > 0) {
        KS_WARNING(status, "Cache file %s is held by process %ld", path, holder);
    } else {
        KS_WARNING(status, "Cache file %s is held by another process", path);
    }
    return status;
}

}  // namespace

OwnedText joined(const char* first, const char* second) noexcept {
    const size_t length = strlen(first);
    const size_t size = strlen(second) + 1;
    OwnedText text(static_cast<char*>(calloc(1, length + size)));
    if (text == nullptr) return text;
    memcpy(text.get(), first, length + 1);
    memcpy(text.get() + length, second, size);
    return text;
}

OwnedText resolvedPath(const char* path) noexcept {
    OwnedText now(strdup(path));
    for (int links = 0; now != nullptr && links < kMostLinks; ++links) {
        if (char* whole = realpath(now.get(), nullptr)) return OwnedText(whole);
        if (errno != ENOENT) return {};
        // Either nothing exists at the path, or a dangling link.
        const OwnedText link = linkText(now.get());
        if (link == nullptr)
            return errno == ENOENT || errno == EINVAL ? inResolvedFolder(now.get()) : nullptr;
        now = followed(now.get(), link.get());
    }
    if (now != nullptr) errno = ELOOP;
    return {};
}

uint32_t reportFailure(const char* function, const char* path, const char* action) noexcept {
    const uint32_t status = storeSystemError(function, kSourceFile);
    KS_WARNING(status, "%s: %s: could not %s: %s", function, path, action, strerror(errno));
    return status;
}

uint32_t refuse(const char* function, const char* path, uint32_t status, const char* why) noexcept {
    storeStatus(status);
    KS_WARNING(status, "%s: %s: %s", function, path, why);
    return status;
}

uint32_t examineFile(const char* function, const char* path, struct stat& found) noexcept {
    found = {};
    if (lstat(path, &found) != 0) {
        found.st_mode = 0;
        return errno == ENOENT ? uint32_t{CR_STATUS_OK}
                               : reportFailure(function, path, "examine the file");
    }
    if (!S_ISREG(found.st_mode))
        return refuse(function, path, CR_STATUS_BAD_HANDLE, "not a regular file");
    if (found.st_size == 0) return CR_STATUS_OK;
    const Descriptor file(open(path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC, 0));
    if (file.get() < 0) return reportFailure(function, path, "open the file");
    char probe = 0;  // qlxMagicRead() does not tell a read error from a file of another kind
    if (pread(file.get(), &probe, 1, 0) < 0) return reportFailure(function, path, "read the file");
    QLXMagic header{};
    if (qlxMagicRead(file.get(), &header) == kCacheFileType) return CR_STATUS_OK;
    return refuse(function, path, CR_STATUS_BAD_HANDLE, "not a cache file");
}

uint32_t takeHold(const char* function, const char* path, KSCacheHold& hold) noexcept {
    hold.path = resolvedPath(path);
    if (hold.path == nullptr) return reportFailure(function, path, "resolve the path");
    struct stat found {};
    if (const uint32_t bad = examineFile(function, hold.path.get(), found)) return bad;
    Descriptor lock(-1);
    if (const uint32_t bad = openLockOf(function, hold.path.get(), lock)) return bad;
    if (!setLock(lock.get(), kHoldByte, F_WRLCK))
        return reportNotHeld(function, hold.path.get(), lock.get());
    writeHolder(lock.get());
    hold.lock = std::move(lock);
    hold.magic = kHoldMagic;
    return CR_STATUS_OK;
}

void releaseHold(KSCacheHold& hold) noexcept {
    const ErrnoAndSlotGuard kept;
    if (hold.lock.get() < 0) return;
    // Another process that shares the hold may have given it back, and a new holder have come.
    const bool isOurs = setLock(hold.lock.get(), kHoldByte, F_WRLCK);
    if (isOurs && ftruncate(hold.lock.get(), 0) != 0)
        KS_TRACE("%s: the lock file keeps the process id", "KSCacheReleaseFile");
    // Not by close() alone: a child process of fork() has the descriptor, too.
    setLock(hold.lock.get(), kHoldByte, F_UNLCK);
    hold.lock.close();
    hold.magic = 0;
}

/// Whether the hold was given back is asked through another descriptor, to which the lock of the
/// hold shows. To lock it once more tells whose it is.
uint32_t Turn::take(const char* function, const KSCacheHold& hold) noexcept {
    const char* path = hold.path.get();
    if (const uint32_t bad = openLockOf(function, path, lock_)) return bad;
    if (!setLock(lock_.get(), kTurnByte, F_WRLCK)) {
        if (!isTaken()) return reportFailure(function, path, "lock the file");
        return refuse(function, path, CR_STATUS_BUSY, "another call replaces the file");
    }
    if (!isLocked(lock_.get(), kHoldByte))
        return refuse(function, path, CR_STATUS_BAD_HANDLE,
                      "the hold was given back, or its lock file removed");
    if (setLock(hold.lock.get(), kHoldByte, F_WRLCK)) return CR_STATUS_OK;
    return reportNotHeld(function, path, lock_.get());
}

Turn::~Turn() {
    const ErrnoAndSlotGuard kept;
    if (lock_.get() >= 0) setLock(lock_.get(), kTurnByte, F_UNLCK);
}

}  // namespace kspool

using namespace kspool;

uint32_t KSCacheHoldFile(const char* path, KSCacheHold** hold) noexcept {
    if (path == nullptr || hold == nullptr) return storeStatus(CR_STATUS_INVALID_PARAMETER);
    std::unique_ptr<KSCacheHold> made(new (std::nothrow) KSCacheHold);
    if (made == nullptr) {
        errno = ENOMEM;
        return reportFailure("KSCacheHoldFile", path, "hold the file");
    }
    if (const uint32_t bad = takeHold("KSCacheHoldFile", path, *made)) return bad;
    *hold = made.release();
    return CR_STATUS_OK;
}

void KSCacheReleaseFile(KSCacheHold* hold) noexcept {
    if (hold == nullptr || hold->magic != kHoldMagic) return;
    releaseHold(*hold);
    delete hold;
}
