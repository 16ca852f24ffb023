// A cache that a program owns.
#ifndef TOOLS_TOOL_CACHE_H
#define TOOLS_TOOL_CACHE_H

#include <memory>

#include "kscache.h"

namespace tool {

struct DestroyCache {
    void operator()(KSCache* cache) const { KSCacheDestroy(cache); }
};
using CachePointer = std::unique_ptr<KSCache, DestroyCache>;

}  // namespace tool

#endif
