// The cache file: a magic header whose value is the Adler-32 checksum of all bytes after it, then
// one record for each entry, without count, padding or trailer. docs/cache-format.md describes it
// byte by byte. This header has what save, load and replace share.
#ifndef KSCACHE_FILE_H
#define KSCACHE_FILE_H

#include <array>
#include <cstddef>
#include <cstdlib>

#include "common/owned.h"
#include "kscache/kscache_int.h"
#include "kscache/kscache_tree.h"

namespace kspool {

inline constexpr uint32_t kCacheFileType = 64;

/// A record: the whole 32-byte fingerprint field of the node, whatever its type; the type; the
/// value in the machine's byte order.
inline constexpr size_t kTypeOffset = kLongDigest;
inline constexpr size_t kValueOffset = kTypeOffset + sizeof(KSCacheNode::type);
inline constexpr size_t kRecordSize = kValueOffset + sizeof(KSCacheNode::value);
static_assert(kRecordSize == 41);

/// Records are read in blocks of 26 kB on the stack: larger ones would overflow small thread
/// stacks. Records are written in larger blocks from the heap, or in a block of this size when
/// memory is short. A call uses only one block on the stack.
inline constexpr size_t kBlockRecords = 640;
inline constexpr size_t kBlockSize = kBlockRecords * kRecordSize;
using Block = std::array<char, kBlockSize>;

/// Checks the handle and the path of a file function. A failure's status is stored in the slot.
inline uint32_t checkFileRequest(const KSCache* cache, const char* path) noexcept {
    if (const uint32_t bad = checkHandle(cache)) return bad;
    if (path == nullptr) return storeStatus(CR_STATUS_INVALID_PARAMETER);
    return CR_STATUS_OK;
}

struct Written {
    uint64_t count;     ///< records
    uint32_t checksum;  ///< of all records
    int error;          ///< errno of the first write of records that failed, or 0
};

/// open() of a file that is written: never as descriptor 0, 1 or 2, where a message would land in
/// the file. -1 with errno set on failure.
int openToWrite(const char* path, int flags, mode_t mode) noexcept;

/// Writes a header with checksum 0, and a record for each entry in the order of memory, after it
/// has asked the file system to reserve room. `block` is used when there is no memory for a larger
/// one. A failed write does not end it.
Written writeEntries(const KSCache* cache, int fd, Block& block) noexcept;

/// The running checksum of a file at the end of each block. A second pass over the file compares
/// them to detect a block that has changed.
class BlockSums {
  public:
    BlockSums() = default;
    ~BlockSums() { free(sums_); }
    BlockSums(const BlockSums&) = delete;
    BlockSums& operator=(const BlockSums&) = delete;

    /// False when there is no memory.
    bool add(uint32_t sum) noexcept;
    uint32_t operator[](size_t block) const noexcept { return sums_[block]; }

  private:
    uint32_t* sums_ = nullptr;
    size_t count_ = 0;
    size_t capacity_ = 0;
};

/// What checkFile() finds after the header of a file.
struct CheckedFile {
    uint64_t length = 0;  ///< bytes
    uint32_t checksum = 0;
    BlockSums sums;
};

/// Reads a file from the header at the current position to the end, and checks header and checksum.
/// On success the file is positioned at its first record; a failure's status is also stored in the
/// slot.
uint32_t checkFile(int fd, const char* path, Block& block, CheckedFile& checked) noexcept;

/// Reads `length` bytes, or fewer at the end of the file. Returns the number read, or -1 with errno
/// set.
ssize_t readFully(int fd, char* bytes, size_t length) noexcept;

}  // namespace kspool

#endif
