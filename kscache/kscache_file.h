// The cache file: a magic header whose value is the Adler-32 checksum of all bytes after it, then
// one record for each entry, without count, padding or trailer. docs/cache-format.md describes it
// to the byte.
#ifndef KSCACHE_FILE_H
#define KSCACHE_FILE_H

#include <cstddef>

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

/// Records are written and read in blocks of 63 kB, which lie on the stack: larger ones would save
/// few system calls and overflow small thread stacks.
inline constexpr size_t kBlockRecords = 1536;
inline constexpr size_t kBlockSize = kBlockRecords * kRecordSize;

/// For save and load: checks the handle and the path; the status of a bad one is in the status
/// slot.
inline uint32_t checkFileRequest(const KSCache* cache, const char* path) noexcept {
    if (const uint32_t bad = checkHandle(cache)) return bad;
    if (path == nullptr) return storeStatus(CR_STATUS_INVALID_PARAMETER);
    return CR_STATUS_OK;
}

}  // namespace kspool

#endif
