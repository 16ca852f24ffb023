// A cache that a program owns.
#ifndef TOOLS_SHARED_CACHE_H
#define TOOLS_SHARED_CACHE_H

#include <cstddef>
#include <memory>

#include "kscache.h"

namespace tool {

/// A record of a cache file: 32 bytes of fingerprint, its type, a value of 64 bits.
inline constexpr size_t kRecordSize = 41;

struct DestroyCache {
    void operator()(KSCache* cache) const { KSCacheDestroy(cache); }
};
using CachePointer = std::unique_ptr<KSCache, DestroyCache>;

}  // namespace tool

#endif
