// A cache file as a cache: loaded, walked, and the settings that suit it.
#ifndef TOOLS_CACHE_CONTENTS_H
#define TOOLS_CACHE_CONTENTS_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "kscache.h"
#include "tools/cache/file.h"
#include "tools/shared/cache.h"

namespace cache {

using tool::CachePointer;

struct Settings {
    uint32_t bits;
    uint32_t areaSize;
};

Settings settingsFor(uint64_t entries);

/// Pages for a number of entries. The first slot of a page is its header.
uint64_t pagesFor(uint64_t entries, uint64_t pageSlots);

/// Slots of a page as the library rounds them.
uint32_t roundedArea(uint32_t areaSize);

struct Loaded {
    CachePointer cache;
    KSCacheStatsRecord stats{};
};

/// Loads a file that can be loaded into a cache of its own. The order of a walk is then that of the
/// file; of records with the same key, the first counts. Throws when an entry finds no memory, or
/// the file is no longer what it was.
Loaded load(const FileReport& file, const Settings& settings);

/// Calls `visit`, which may throw, for each entry until it returns false.
void forEachEntry(KSCache* cache, const std::function<bool(const KSCacheNode&)>& visit);

/// The digest in hexadecimal: 32 bytes of type 3, otherwise 16.
std::string digestText(const KSCacheNode& entry);

}  // namespace cache

#endif
