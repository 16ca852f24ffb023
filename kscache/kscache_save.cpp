// Save: writes every entry, in the order of memory, into a cache file. Write errors are not
// reported; the checksum in the header makes the next load refuse an incomplete file.
#include <fcntl.h>

#include <array>

#include "kscache/kscache_adler.h"
#include "kscache/kscache_file.h"

using namespace kspool;

namespace {

/// Writes all bytes; a short or interrupted write is continued, an error is silent.
void writeAll(int fd, const char* bytes, size_t length) {
    while (length > 0) {
        const ssize_t written = write(fd, bytes, length);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return;
        bytes += written;
        length -= static_cast<size_t>(written);
    }
}

/// Gathers records into blocks, and folds each block into the checksum while it is still in the
/// processor's cache, before it is written.
class RecordWriter {
  public:
    explicit RecordWriter(int fd) : fd_(fd) {}

    void write(const KSCacheNode& node) {
        char* record = next_->data();
        memcpy(record, node.fingerprint, sizeof node.fingerprint);
        memcpy(record + kTypeOffset, &node.type, sizeof node.type);
        memcpy(record + kValueOffset, &node.value, sizeof node.value);
        ++next_;
        ++count_;
        if (next_ == block_.end()) flush();
    }
    void flush() {
        const char* bytes = block_.data()->data();
        const size_t length = static_cast<size_t>(next_ - block_.begin()) * kRecordSize;
        checksum_ = adlerFold(checksum_, bytes, length);
        writeAll(fd_, bytes, length);
        next_ = block_.begin();
    }
    uint64_t count() const { return count_; }
    uint32_t checksum() const { return checksum_; }

  private:
    int fd_;
    uint32_t checksum_ = kAdlerStart;
    uint64_t count_ = 0;
    std::array<std::array<char, kRecordSize>, kBlockRecords> block_;
    static_assert(sizeof block_ == kBlockSize);
    std::array<char, kRecordSize>* next_ = block_.begin();
};

uint32_t reportNotOpened(const char* path) {
    const uint32_t status = storeSystemError("KSCacheSave", kSourceFile);
    KS_WARNING(status, "Could not open cache file %s for writing: %s", path, strerror(errno));
    return status;
}

void writeEntries(const KSCache* cache, RecordWriter& writer) {
    for (KSCachePage* page = cache->firstPage; page != nullptr; page = page->next) {
        for (const KSCacheNode& slot : slotsOf(page)) {
            if (slot.refCount != 0) writer.write(slot);
        }
    }
    writer.flush();
}

}  // namespace

uint32_t KSCacheSave(const KSCache* cache, const char* path, uint64_t* count) noexcept {
    if (const uint32_t bad = checkFileRequest(cache, path)) return bad;
    KS_TRACE("%s: saving cache to %s", "KSCacheSave", path);
    Descriptor file(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (file.get() < 0) return reportNotOpened(path);
    qlxMagicWrite(kCacheFileType, file.get(), 0);
    RecordWriter writer(file.get());
    writeEntries(cache, writer);
    if (writer.count() == 0) {
        file.close();
        qlx_unlink(path);
    } else {
        KS_TRACE("%s: %lu nodes saved, payload CRC = %u", path,
                 static_cast<unsigned long>(writer.count()), writer.checksum());
        lseek(file.get(), 0, SEEK_SET);
        qlxMagicWrite(kCacheFileType, file.get(), writer.checksum());
    }
    if (count != nullptr) *count = writer.count();
    return CR_STATUS_OK;
}
