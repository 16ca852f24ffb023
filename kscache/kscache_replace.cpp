// Replace: an atomic, durable save. Under the lock of the file (kscache_hold.h), a new file is
// written beside the old one, synced, read back and renamed over the old one. A failure before the
// rename leaves the old file unchanged.
#include <fcntl.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>

#include "kscache/kscache_file.h"
#include "kscache/kscache_hold.h"

using namespace kspool;

namespace {

constexpr char kFunction[] = "KSCacheReplaceFile";

/// The new file. The destructor removes it unless place() has renamed it, and closes it first,
/// since some file systems keep a removed file while it is open.
class NewFile {
  public:
    explicit NewFile(OwnedText path) : path_(std::move(path)) {}
    ~NewFile() {
        const ErrnoAndSlotGuard kept;
        file_.close();
        if (mustGo_) qlx_unlink(path());
    }
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    /// Removes a file that an interrupted call left behind. The lock keeps others from writing it.
    bool removeLeftOver() const { return qlx_unlink(path()) == 0 || errno == ENOENT; }
    bool make() {
        constexpr int kFlags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
        file_ = Descriptor(openToWrite(path(), kFlags, 0600));
        mustGo_ = file_.get() >= 0;
        return mustGo_;
    }
    bool place(const char* target) {
        if (rename(path(), target) != 0) return false;
        mustGo_ = false;
        return true;
    }
    const char* path() const { return path_.get(); }
    int fd() const { return file_.get(); }

  private:
    OwnedText path_;
    Descriptor file_{-1};
    bool mustGo_ = false;
};

/// Gives the new file owner, group and mode of the old one.
bool giveAccess(int fd, const struct stat& old) {
    struct stat now {};
    if (fstat(fd, &now) != 0) return false;
    const bool sameOwner = now.st_uid == old.st_uid && now.st_gid == old.st_gid;
    if (!sameOwner && fchown(fd, old.st_uid, old.st_gid) != 0) return false;
    return fchmod(fd, old.st_mode & 07777) == 0;
}

class Replacement {
  public:
    Replacement(const KSCache* cache, const char* target)
        : cache_(cache), target_(target), new_(joined(target, ".new")) {}

    uint32_t run(uint64_t& count) {
        if (new_.path() == nullptr) return failed("name the new file");
        if (const uint32_t bad = examineFile(kFunction, target_, old_)) return bad;
        // Opened before anything is written: a folder that cannot be opened cannot be synced.
        Descriptor folder(openFolder());
        if (folder.get() < 0) return failed("open the folder");
        if (const uint32_t bad = refuseOwned()) return bad;
        if (!new_.removeLeftOver()) return failed("remove the left-over new file");
        count = cache_->cachedItems;
        if (const uint32_t bad = count > 0 ? placeNew() : removeTarget()) return bad;
        return syncFolder(folder.get());
    }

  private:
    uint32_t failed(const char* action) const { return reportFailure(kFunction, target_, action); }
    bool isThere() const { return old_.st_mode != 0; }

    /// Refuses a new file with a lock file: somebody holds, or held, a cache file of that name.
    uint32_t refuseOwned() const {
        const OwnedText lock = joined(new_.path(), ".lock");
        if (lock == nullptr) return failed("name the new file");
        struct stat found {};
        if (lstat(lock.get(), &found) != 0) return CR_STATUS_OK;
        return refuse(kFunction, new_.path(), CR_STATUS_BAD_HANDLE,
                      "has a lock file, so it is a cache file of its own");
    }

    int openFolder() const {
        const char* name = strrchr(target_, '/') + 1;  // the path is resolved, hence absolute
        const OwnedText folder(strndup(target_, static_cast<size_t>(name - target_)));
        if (folder == nullptr) return -1;
        return open(folder.get(), O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
    }

    /// Without this sync a power cut may undo the rename. File systems that cannot sync a folder
    /// return EINVAL or ENOTSUP, which is not a failure.
    uint32_t syncFolder(int folder) const {
        if (fsync(folder) == 0 || errno == EINVAL || errno == ENOTSUP) return CR_STATUS_OK;
        return failed("sync the folder (the change is made)");
    }

    uint32_t placeNew() {
        if (!new_.make()) return failed("make the new file");
        if (isThere() && !giveAccess(new_.fd(), old_)) return failed("keep the owner and the mode");
        Block block;
        const Written written = writeEntries(cache_, new_.fd(), block);
        if (written.error != 0) {
            errno = written.error;
            return failed("write the new file");
        }
        if (lseek(new_.fd(), 0, SEEK_SET) != 0 ||
            qlxMagicWrite(kCacheFileType, new_.fd(), written.checksum) != 0)
            return failed("write the header of the new file");
        if (fsync(new_.fd()) != 0) return failed("sync the new file");
        if (const uint32_t bad = verify(written, block)) return bad;
        return new_.place(target_) ? uint32_t{CR_STATUS_OK} : failed("rename the new file");
    }

    /// Reads the new file back: a disk may accept bytes that it then does not keep.
    uint32_t verify(const Written& written, Block& block) const {
        if (lseek(new_.fd(), 0, SEEK_SET) != 0) return failed("read the new file back");
        CheckedFile checked;
        if (const uint32_t bad = checkFile(new_.fd(), new_.path(), block, checked))
            return refuse(kFunction, target_, bad,
                          "the new file could not be read back, nothing is replaced");
        if (checked.checksum == written.checksum && checked.length == written.count * kRecordSize)
            return CR_STATUS_OK;
        return refuse(kFunction, target_, CR_STATUS_CORRUPT,
                      "the new file is not what was written, nothing is replaced");
    }

    /// An empty cache leaves no file.
    uint32_t removeTarget() const {
        if (!isThere() || qlx_unlink(target_) == 0) return CR_STATUS_OK;
        return failed("remove the file of an empty cache");
    }

    const KSCache* cache_;
    const char* target_;
    NewFile new_;
    struct stat old_ {};
};

/// CR_STATUS_OK if the hold is one of this file.
uint32_t checkHold(const char* path, const KSCacheHold& hold) {
    if (hold.magic != kHoldMagic) return storeStatus(CR_STATUS_BAD_HANDLE);
    const OwnedText resolved = resolvedPath(path);
    if (resolved == nullptr) return reportFailure(kFunction, path, "resolve the path");
    if (strcmp(resolved.get(), hold.path.get()) == 0) return CR_STATUS_OK;
    return refuse(kFunction, path, CR_STATUS_INVALID_PARAMETER, "the hold is one of another file");
}

uint32_t replace(const KSCache* cache, const KSCacheHold& hold, uint64_t& count) {
    Turn turn;
    if (const uint32_t bad = turn.take(kFunction, hold)) return bad;
    return Replacement(cache, hold.path.get()).run(count);
}

}  // namespace

uint32_t KSCacheReplaceFile(const KSCache* cache, const char* path, const KSCacheHold* hold,
                            uint64_t* count) noexcept {
    if (const uint32_t bad = checkFileRequest(cache, path)) return bad;
    KS_TRACE("%s: saving cache to %s", kFunction, path);
    KSCacheHold own;
    const uint32_t bad = hold != nullptr ? checkHold(path, *hold) : takeHold(kFunction, path, own);
    if (bad != CR_STATUS_OK) return bad;
    uint64_t saved = 0;
    const KSCacheHold& used = hold != nullptr ? *hold : own;
    const uint32_t status = replace(cache, used, saved);
    releaseHold(own);
    if (status == CR_STATUS_OK && count != nullptr) *count = saved;
    return status;
}
