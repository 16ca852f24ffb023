// Load: a cache file is read twice, once to check it as a whole and once to add its records, so
// that a damaged file adds none of them.
#include <fcntl.h>

#include <array>

#include "kscache/kscache_adler.h"
#include "kscache/kscache_file.h"

using namespace kspool;

namespace {

using Block = std::array<char, kBlockSize>;

ssize_t readSome(int fd, char* bytes, size_t length) {
    for (;;) {
        const ssize_t got = read(fd, bytes, length);
        if (got >= 0 || errno != EINTR) return got;
    }
}

/// Opens a file for reading; -1 with errno set on failure. Descriptor 0 counts as a failure and is
/// closed again.
int openForReading(const char* path) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd != 0) return fd;
    close(fd);
    errno = EBADF;
    return -1;
}

/// The checksum of the file from its position to its end; false on a read error.
bool checksumOfRest(int fd, Block& block, uint32_t& checksum) {
    checksum = kAdlerStart;
    for (;;) {
        const ssize_t got = readSome(fd, block.data(), block.size());
        if (got <= 0) return got == 0;
        checksum = adlerFold(checksum, block.data(), static_cast<size_t>(got));
    }
}

/// Checks the header and the checksum; on success the file is positioned at its first record. The
/// position after the header is asked for, since its length is the platform library's.
uint32_t checkFile(int fd, const char* path, Block& block) {
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
    uint32_t checksum = 0;
    if (!checksumOfRest(fd, block, checksum)) {
        KS_TRACE("%s: read failed", path);
        return storeStatus(CR_STATUS_READ_FAILED);
    }
    if (header.value != checksum) {
        KS_TRACE("%s: file corrupted or incomplete. Expected a CRC of %lu, got %u instead", path,
                 static_cast<unsigned long>(header.value), checksum);
        return storeStatus(CR_STATUS_CORRUPT);
    }
    if (lseek(fd, payload, SEEK_SET) == payload) return CR_STATUS_OK;
    return storeStatus(CR_STATUS_SEEK_FAILED);
}

/// Adds whole records. The statuses of single adds are ignored: a record whose key is known
/// already, or for which no page can be mapped, counts as read.
void addRecords(KSCache* cache, const char* records, size_t count) {
    std::array<KSCacheKey, kBlockRecords> keys;
    std::array<uint64_t, kBlockRecords> values;
    for (size_t i = 0; i < count; ++i, records += kRecordSize) {
        keys[i] = {records, static_cast<uint8_t>(records[kTypeOffset])};
        memcpy(&values[i], records + kValueOffset, sizeof values[i]);
    }
    KSCacheAddBatch(cache, keys.data(), values.data(), nullptr, count, nullptr);
}

/// Adds all records up to the end of the file or the first read error, and returns their number. A
/// last piece shorter than a record is ignored.
uint64_t loadRecords(KSCache* cache, int fd, Block& block) {
    uint64_t count = 0;
    size_t kept = 0;  // bytes of a record that the last read split
    for (;;) {
        const ssize_t got = readSome(fd, block.data() + kept, block.size() - kept);
        if (got <= 0) return count;
        const size_t filled = kept + static_cast<size_t>(got);
        const size_t whole = filled / kRecordSize;
        addRecords(cache, block.data(), whole);
        count += whole;
        kept = filled - whole * kRecordSize;
        memmove(block.data(), block.data() + whole * kRecordSize, kept);
    }
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
    Block block;
    if (const uint32_t bad = checkFile(file.get(), path, block)) return bad;
    const uint64_t loaded = loadRecords(cache, file.get(), block);
    file.close();
    KS_TRACE("CacheLoad: %s loaded %lu nodes", path, static_cast<unsigned long>(loaded));
    if (count != nullptr) *count = loaded;
    return CR_STATUS_OK;
}
