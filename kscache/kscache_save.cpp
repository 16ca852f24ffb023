// Save: writes every entry, in the order of memory, into a cache file. Write errors are not
// reported; the checksum in the header makes the next load refuse an incomplete file.
#include <fcntl.h>
#include <sys/stat.h>

#include <span>

#include "common/descriptor_above.h"
#include "kscache/kscache_adler.h"
#include "kscache/kscache_file.h"
#include "kscache/kscache_hold.h"

namespace kspool {
namespace {

/// Writes all bytes; continues after a short or interrupted write. Returns 0, or errno.
int writeAll(int fd, const char* bytes, size_t length) {
    while (length > 0) {
        const ssize_t written = write(fd, bytes, length);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return written < 0 ? errno : EIO;
        bytes += written;
        length -= static_cast<size_t>(written);
    }
    return 0;
}

/// Gathers records into blocks, and folds each block into the checksum while it is still in the
/// processor's cache, before it is written.
class RecordWriter {
  public:
    /// `block` has room for whole records.
    RecordWriter(int fd, std::span<char> block) : fd_(fd), block_(block) {}

    void write(const KSCacheNode& node) {
        char* record = block_.data() + filled_;
        memcpy(record, node.fingerprint, sizeof node.fingerprint);
        memcpy(record + kTypeOffset, &node.type, sizeof node.type);
        memcpy(record + kValueOffset, &node.value, sizeof node.value);
        filled_ += kRecordSize;
        ++written_.count;
        if (filled_ == block_.size()) flush();
    }
    Written finish() {
        flush();
        return written_;
    }

  private:
    void flush() {
        written_.checksum = adlerFold(written_.checksum, block_.data(), filled_);
        const int error = writeAll(fd_, block_.data(), filled_);
        if (written_.error == 0) written_.error = error;
        filled_ = 0;
    }

    int fd_;
    std::span<char> block_;
    size_t filled_ = 0;
    Written written_{0, kAdlerStart, 0};
};

/// Records of a block on the heap. On ext4, writing the same bytes in blocks of 670 kB takes a
/// third of the time of blocks of 26 kB (docs/internals/cache-memory.md).
constexpr size_t kHeapRecords = 16384;

/// Lets the file system allocate the file at once instead of piece by piece as it grows. Errors are
/// ignored: some file systems cannot, and on a full one the writes fail.
void reserveRoom(const KSCache* cache, int fd) {
    const ErrnoAndSlotGuard kept;
    const auto records = static_cast<off_t>(cache->cachedItems * kRecordSize);
    fallocate(fd, FALLOC_FL_KEEP_SIZE, 0, records);
}

OwnedText heapBlock() {
    const ErrnoAndSlotGuard kept;
    return OwnedText(static_cast<char*>(calloc(kHeapRecords, kRecordSize)));
}

}  // namespace

/// A descriptor that is moved after open() could have got a message before. So the free standard
/// descriptors are taken meanwhile, by ones that nothing can be written to.
int openToWrite(const char* path, int flags, mode_t mode) noexcept {
    const Descriptor place(open("/", O_PATH | O_CLOEXEC, 0));
    if (place.get() >= 0 && place.get() <= STDERR_FILENO) return openToWrite(path, flags, mode);
    return aboveStandard(open(path, flags, mode));
}

Written writeEntries(const KSCache* cache, int fd, Block& block) noexcept {
    qlxMagicWrite(kCacheFileType, fd, 0);
    reserveRoom(cache, fd);
    const OwnedText large = heapBlock();
    RecordWriter writer(fd, large != nullptr ? std::span(large.get(), kHeapRecords * kRecordSize)
                                             : std::span<char>(block));
    for (KSCachePage* page = cache->firstPage; page != nullptr; page = page->next) {
        for (const KSCacheNode& slot : slotsOf(page)) {
            if (slot.refCount != 0) writer.write(slot);
        }
    }
    return writer.finish();
}

}  // namespace kspool

using namespace kspool;

namespace {

/// Frees disk space that reserveRoom() allocated for records that could not be written. The
/// contents of the file do not change.
void giveBackRoom(int fd) {
    const off_t length = lseek(fd, 0, SEEK_END);
    [[maybe_unused]] const int ignored = length >= 0 ? ftruncate(fd, length) : 0;
}

/// An empty cache has no file. Of a link, the file goes to which it leads; what is not a regular
/// file, such as a device, stays.
void removeEmpty(const char* path, Descriptor& file) {
    struct stat found {};
    const bool isFile = fstat(file.get(), &found) == 0 && S_ISREG(found.st_mode);
    file.close();
    if (!isFile) return;
    const bool isLink = lstat(path, &found) == 0 && S_ISLNK(found.st_mode);
    const OwnedText target = isLink ? resolvedPath(path) : nullptr;
    if (!isLink || target != nullptr) qlx_unlink(isLink ? target.get() : path);
}

uint32_t reportNotOpened(const char* path) {
    const uint32_t status = storeSystemError("KSCacheSave", kSourceFile);
    KS_WARNING(status, "Could not open cache file %s for writing: %s", path, strerror(errno));
    return status;
}

}  // namespace

uint32_t KSCacheSave(const KSCache* cache, const char* path, uint64_t* count) noexcept {
    if (const uint32_t bad = checkFileRequest(cache, path)) return bad;
    KS_TRACE("%s: saving cache to %s", "KSCacheSave", path);
    Descriptor file(openToWrite(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (file.get() < 0) return reportNotOpened(path);
    Block block;
    const Written written = writeEntries(cache, file.get(), block);
    if (written.error != 0) giveBackRoom(file.get());
    if (written.count == 0) {
        removeEmpty(path, file);
    } else {
        KS_TRACE("%s: %lu nodes saved, payload CRC = %u", path,
                 static_cast<unsigned long>(written.count), written.checksum);
        lseek(file.get(), 0, SEEK_SET);
        qlxMagicWrite(kCacheFileType, file.get(), written.checksum);
    }
    if (count != nullptr) *count = written.count;
    return CR_STATUS_OK;
}
