// Load: a cache file is read twice, first to check all of it, then to add its records, so that a
// damaged file adds none. The second pass reads the same blocks and compares the running checksum
// at the end of each with that of the first pass: a file that changes in between would otherwise
// add unchecked records.
#include <fcntl.h>
#include <poll.h>

#include <algorithm>

#include "kscache/kscache_adler.h"
#include "kscache/kscache_file.h"

namespace kspool {

bool BlockSums::add(uint32_t sum) noexcept {
    if (count_ == capacity_) {
        const size_t wanted = capacity_ == 0 ? 64 : 2 * capacity_;
        void* memory = realloc(sums_, wanted * sizeof *sums_);
        if (memory == nullptr) return false;
        sums_ = static_cast<uint32_t*>(memory);
        capacity_ = wanted;
    }
    sums_[count_++] = sum;
    return true;
}

ssize_t readFully(int fd, char* bytes, size_t length) noexcept {
    size_t filled = 0;
    while (filled < length) {
        const ssize_t got = read(fd, bytes + filled, length - filled);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return got;
        if (got == 0) break;
        filled += static_cast<size_t>(got);
    }
    return static_cast<ssize_t>(filled);
}

namespace {

/// Computes the checksums from the position to the end of the file. Returns CR_STATUS_OK, or the
/// status of a read error or of missing memory.
uint32_t checksumRest(int fd, Block& block, CheckedFile& checked) {
    checked.checksum = kAdlerStart;
    for (;;) {
        const ssize_t got = readFully(fd, block.data(), block.size());
        if (got < 0) return CR_STATUS_READ_FAILED;
        if (got == 0) return CR_STATUS_OK;
        const auto length = static_cast<size_t>(got);
        checked.checksum = adlerFold(checked.checksum, block.data(), length);
        checked.length += length;
        if (!checked.sums.add(checked.checksum)) return CR_STATUS_NO_MEMORY;
    }
}

}  // namespace

/// The position of the first record is queried, since the platform library decides how long a
/// header is.
uint32_t checkFile(int fd, const char* path, Block& block, CheckedFile& checked) noexcept {
    QLXMagic header{};
    if (qlxMagicRead(fd, &header) != kCacheFileType) {
        KS_TRACE("%s: not a QLX cache dump, skipping", path);
        return storeStatus(CR_STATUS_BAD_HANDLE);
    }
    const off_t payload = lseek(fd, 0, SEEK_CUR);
    if (payload == -1) {
        KS_TRACE("%s: seek to current positon failed", path);
        return storeStatus(CR_STATUS_SEEK_FAILED);
    }
    if (const uint32_t bad = checksumRest(fd, block, checked)) {
        if (bad == CR_STATUS_READ_FAILED) KS_TRACE("%s: read failed", path);
        return storeStatus(bad);
    }
    if (header.value != checked.checksum) {
        KS_TRACE("%s: file corrupted or incomplete. Expected a CRC of %lu, got %u instead", path,
                 static_cast<unsigned long>(header.value), checked.checksum);
        return storeStatus(CR_STATUS_CORRUPT);
    }
    if (lseek(fd, payload, SEEK_SET) == payload) return CR_STATUS_OK;
    return storeStatus(CR_STATUS_SEEK_FAILED);
}

}  // namespace kspool

using namespace kspool;

namespace {

constexpr size_t kKeysAtOnce = 256;  ///< of a batch, on the stack

/// Opens a file for reading; -1 with errno set on failure. Descriptor 0 counts as a failure and is
/// closed again. A pipe is opened without waiting for a writer. Descriptors 1 and 2 do no harm,
/// since no message can be written to them.
int openForReading(const char* path) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd != 0) return fd;
    close(fd);
    errno = EBADF;
    return -1;
}

/// Whether there is nothing to read yet, as in a pipe without a writer. Files are always ready.
bool wouldWait(int fd) {
    pollfd asked{fd, POLLIN, 0};
    return poll(&asked, 1, 0) == 0;
}

/// Adds whole records. The statuses of single adds are ignored: a record whose key is known
/// already, or for which no page can be mapped, counts as read.
void addRecords(KSCache* cache, const char* records, size_t count) {
    std::array<KSCacheKey, kKeysAtOnce> keys;
    std::array<uint64_t, kKeysAtOnce> values;
    while (count > 0) {
        const size_t now = std::min(count, keys.size());
        for (size_t i = 0; i < now; ++i, records += kRecordSize) {
            keys[i] = {records, static_cast<uint8_t>(records[kTypeOffset])};
            memcpy(&values[i], records + kValueOffset, sizeof values[i]);
        }
        KSCacheAddBatch(cache, keys.data(), values.data(), nullptr, now, nullptr);
        count -= now;
    }
}

/// The slot tells the caller that the entries are right, but not all.
uint64_t endEarly(const char* path, uint32_t status, const char* why, uint64_t count) {
    storeStatus(status);
    KS_WARNING(status, "%s %s: %lu nodes loaded", path, why, static_cast<unsigned long>(count));
    return count;
}

/// Adds all records of a file that was checked, and returns their number. A read error, and a block
/// that is not what it was, end the loop. A last piece shorter than a record is ignored.
uint64_t loadRecords(KSCache* cache, int fd, const char* path, Block& block,
                     const CheckedFile& checked) {
    uint64_t count = 0;
    uint32_t checksum = kAdlerStart;
    uint64_t left = checked.length;
    for (size_t i = 0; left > 0; ++i) {
        const auto wanted = static_cast<size_t>(std::min<uint64_t>(left, block.size()));
        const ssize_t got = readFully(fd, block.data(), wanted);
        if (got < 0) return endEarly(path, CR_STATUS_READ_FAILED, "could not be read again", count);
        checksum = adlerFold(checksum, block.data(), static_cast<size_t>(got));
        if (static_cast<size_t>(got) != wanted || checksum != checked.sums[i]) {
            return endEarly(path, CR_STATUS_CORRUPT, "changed while it was read", count);
        }
        addRecords(cache, block.data(), wanted / kRecordSize);
        count += wanted / kRecordSize;
        left -= wanted;
    }
    return count;
}

}  // namespace

uint32_t KSCacheLoad(KSCache* cache, const char* path, uint64_t* count) noexcept {
    if (const uint32_t bad = checkFileRequest(cache, path)) return bad;
    KS_TRACE("%s: loading cache from %s", "KSCacheLoad", path);
    Descriptor file(openForReading(path));
    if (file.get() < 0) {
        KS_TRACE("CacheLoad: load of %s failed: %s", path, strerror(errno));
        return storeSystemError("KSCacheLoad", kSourceFile);
    }
    if (wouldWait(file.get())) {
        KS_TRACE("%s: seek to current positon failed", path);
        return storeStatus(CR_STATUS_SEEK_FAILED);
    }
    Block block;
    CheckedFile checked;
    if (const uint32_t bad = checkFile(file.get(), path, block, checked)) return bad;
    const uint64_t loaded = loadRecords(cache, file.get(), path, block, checked);
    file.close();
    KS_TRACE("CacheLoad: %s loaded %lu nodes", path, static_cast<unsigned long>(loaded));
    if (count != nullptr) *count = loaded;
    return CR_STATUS_OK;
}
