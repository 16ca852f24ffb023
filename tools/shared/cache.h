// Caches of the programs: their owner, the settings that suit a number of entries, their files.
#ifndef TOOLS_SHARED_CACHE_H
#define TOOLS_SHARED_CACHE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "kscache.h"

namespace tool {

/// A record of a cache file: 32 bytes of fingerprint, its type, a value of 64 bits.
inline constexpr size_t kRecordSize = 41;

inline constexpr uint32_t kLargestBits = 29;          ///< as KSCacheCreate() takes them
inline constexpr uint32_t kLargestArea = 59'652'323;  ///< slots of a page below 4 GiB

struct DestroyCache {
    void operator()(KSCache* cache) const { KSCacheDestroy(cache); }
};
using CachePointer = std::unique_ptr<KSCache, DestroyCache>;

/// What KSCacheCreate() is called with.
struct CacheSettings {
    uint32_t bits;
    uint32_t areaSize;
};

/// The settings for a number of entries: KSCacheBitsFor() and KSCacheAreaFor(). With a limit in
/// bytes (0: none), pages are made small enough that a dozen fit into it, since memory is counted
/// in whole pages; but no smaller than 1024 slots, the least that the library makes.
CacheSettings settingsFor(uint64_t entries, uint64_t limit = 0);

/// Why a cache file could not be held or replaced, for a status of KSCacheHoldFile() or
/// KSCacheReplaceFile(). Names the process that holds it.
std::string whyNotReplaced(const std::string& path, uint32_t status);

/// A digest in hexadecimal: 32 bytes of type 3, otherwise 16.
std::string digestText(const void* digest, uint32_t type);

}  // namespace tool

#endif
