// The entries of a cache file, read by loading it into a cache.
#ifndef TOOLS_CACHE_CONTENTS_H
#define TOOLS_CACHE_CONTENTS_H

#include <cstdint>
#include <functional>

#include "kscache.h"
#include "tools/cache/file.h"
#include "tools/shared/cache.h"

namespace cache {

using tool::CachePointer;

/// Pages for a number of entries. The first slot of a page is its header.
uint64_t pagesFor(uint64_t entries, uint64_t pageSlots);

/// The area size as the library rounds it.
uint32_t roundedArea(uint32_t areaSize);

struct Loaded {
    CachePointer cache;
    KSCacheStatsRecord stats{};
};

/// Loads a file into a new cache. A walk of the cache has the order of the file; of records with
/// the same key, the first counts. Throws Failure if memory is short, or if the file has changed
/// since it was inspected. REQUIRES: loadingCode() of the file is kOk.
Loaded load(const FileReport& file, const tool::CacheSettings& settings);

/// Calls `visit`, which may throw, for each entry until it returns false.
void forEachEntry(KSCache* cache, const std::function<bool(const KSCacheNode&)>& visit);

}  // namespace cache

#endif
