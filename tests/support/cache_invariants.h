// What must hold in a cache between any two calls.
#ifndef TESTS_CACHE_INVARIANTS_H
#define TESTS_CACHE_INVARIANTS_H

#include <string>

#include "kscache.h"

/// The first thing that is wrong with the pages, trees, free list or counters; empty if nothing is.
std::string brokenInvariant(const KSCache* cache);

#endif
