/*
 * KSCache: a fingerprint cache in the caller's memory.
 *
 * It answers "is this block of data known, and with which value?" for blocks that are named by
 * their fingerprints (digests). Conventions that hold for every function here:
 *
 * 1. Keys. A key is a pointer to digest bytes and a fingerprint type, of which only the low 8 bits
 *    count. Type 3 means a 32-byte digest, any other type a 16-byte digest, and that many bytes are
 *    read, during the call only. The type is part of the key: the same bytes under two types are
 *    two entries. Bytes 12 to 15 select the tree, so digests must be well spread there, as those
 *    of cryptographic hashes are.
 * 2. Statuses. Functions that return a status return 0 (CR_STATUS_OK) for success. A NULL handle
 *    gives CR_STATUS_NULL_HANDLE (44), a handle without its magic CR_STATUS_BAD_HANDLE (82); both
 *    are stored in the calling thread's status slot as well. Any other missing argument gives
 *    CR_STATUS_INVALID_PARAMETER (9) and leaves the slot alone. Handles are checked first.
 * 3. Status slot. *__cr_errno_location(), declared in platform/status.h. A function that does not
 *    say that it stores something there leaves it alone.
 * 4. Ownership. The caller owns a cache from KSCacheCreate() to KSCacheDestroy(). The cache copies
 *    keys and values and keeps no pointer to the caller's memory but the callback's argument.
 * 5. Threads. The library takes no lock. One cache is used by one thread at a time, lookups
 *    included, since they count. Different caches are independent, with one exception: when a page
 *    of a cache with `lockPages` cannot be unlocked, all memory of the process is unlocked.
 * 6. Memory. An entry takes one slot of 72 bytes in a page of `areaSize` slots (one memory mapping
 *    each), the root table 8 bytes for each of its 2^bits roots. Nothing is allocated per entry.
 */
#ifndef KSCACHE_H
#define KSCACHE_H

#include <stdint.h>

#include "cr_status.h"
#include "kspool_api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A cache. Opaque; made by KSCacheCreate(). */
typedef struct KSCache KSCache;

/* One entry as the cache stores it: exactly one slot of 72 bytes. */
typedef struct KSCacheNode {
    uint8_t fingerprint[32];    /* 16-byte types leave bytes 16 to 31 as the slot held them */
    struct KSCacheNode* higher; /* entries that sort after this one; next node if free */
    struct KSCacheNode* lower;  /* entries that sort before this one; NULL if free */
    uint64_t value;             /* the caller's value, as given when the entry was made */
    uint64_t refCount;          /* 1 to 16383 in an entry, 0 in a free slot */
    uint8_t type;               /* fingerprint type, low 8 bits */
} KSCacheNode;

/* What KSCacheStats() reports. Sizes are in bytes. */
typedef struct KSCacheStatsRecord {
    uint64_t cacheSize;      /* all pages mapped now */
    uint64_t cachedItems;    /* entries */
    uint64_t hits;           /* adds and presence tests that found their fingerprint */
    uint64_t misses;         /* presence tests that did not */
    uint64_t freeListCount;  /* freed slots that wait for reuse */
    uint32_t pageCount;      /* pages mapped now */
    uint32_t nodesAvailable; /* slots of the newest page that were never used */
    uint32_t lockPages;      /* as given to KSCacheCreate() */
    uint32_t areaSize;       /* slots per page as rounded, one header slot included */
    uint32_t bits;           /* the root table holds 2^bits roots */
    uint64_t nodeSize;       /* always 72 */
} KSCacheStatsRecord;

/*
 * Told of an add that found its fingerprint already there, on the caller's thread, before the add
 * returns. `addArg` is the last argument of that add, `callbackArg` that of KSCacheCreate(). It
 * must not throw. It must not reset or destroy the cache.
 */
typedef void (*KSCacheAddCallback)(void* addArg, void* callbackArg);

/*
 * Makes an empty cache.
 *
 *   areaSize   slots of 72 bytes per page. Rounded up to whole system pages, at least 1024, and
 *              held below pages of 4 GiB. A 200th of the expected entries is a good choice.
 *   bits       the root table gets 2^bits roots of 8 bytes: 1 to 29; anything else means 4. The
 *              base-2 logarithm of the expected entries, rounded up, and one more keeps lookups
 *              short. When memory for the table is short, it is halved until it can be had.
 *   lockPages  not 0: every page is locked into memory. A failed lock is reported as a warning, and
 *              the page is used unlocked.
 *   callback   told of each add of a known fingerprint; may be NULL.
 *   callbackArg  handed to the callback as it is; may be NULL.
 *
 * Returns the cache, which the caller must pass to KSCacheDestroy(), or NULL when there is no
 * memory, with the status of the failed system call in the status slot. No page is mapped yet.
 */
KSPOOL_API KSCache* KSCacheCreate(uint32_t areaSize, uint32_t bits, uint32_t lockPages,
                                  KSCacheAddCallback callback, void* callbackArg) KSPOOL_NOEXCEPT;

/*
 * Releases a cache and all of its memory. NULL is allowed. The handle is not checked; it must not
 * be used afterwards.
 */
KSPOOL_API void KSCacheDestroy(KSCache* cache) KSPOOL_NOEXCEPT;

/*
 * Empties a cache: all pages are released, counters start at 0, the settings of KSCacheCreate()
 * stay. NULL is allowed. The handle is not checked.
 */
KSPOOL_API void KSCacheReset(KSCache* cache) KSPOOL_NOEXCEPT;

/*
 * Copies the cache's counters and settings into `stats`, which the caller provides. Costs no walk.
 *
 * Returns 0; 44 or 82, also in the status slot; 9 for NULL `stats`.
 */
KSPOOL_API uint32_t KSCacheStats(const KSCache* cache, KSCacheStatsRecord* stats) KSPOOL_NOEXCEPT;

/*
 * Records a fingerprint with a value, or notes that it is already known.
 *
 *   value   the caller's 64 bits, kept with a new entry. A known entry keeps its own value.
 *   addArg  handed to the cache's callback when the fingerprint is known; NULL: no callback.
 *
 * Returns
 *   CR_STATUS_OK (0)      a new entry was made, with reference count 1;
 *   CR_STATUS_EXISTS (1)  the fingerprint was known: the hit is counted, the entry's reference
 *                         count raised (up to 16383), the callback called; slot left alone;
 *   44, 82                bad handle, also in the status slot;
 *   9                     NULL fingerprint;
 *   any other value       the status of a page that could not be mapped, also in the status slot.
 *                         The cache is as it was and works on; this is logged once until a page
 *                         can be had again.
 */
KSPOOL_API uint32_t KSCacheAdd(KSCache* cache, const void* fingerprint, uint32_t type,
                               uint64_t value, void* addArg) KSPOOL_NOEXCEPT;

/*
 * Gets the value of a fingerprint and changes nothing, counters included. `valueOut` belongs to
 * the caller, may be NULL, and is written only when the fingerprint is found.
 *
 * Returns 0; CR_STATUS_NOT_FOUND (2), slot left alone; 44 or 82, also in the status slot; 9 for a
 * NULL fingerprint.
 */
KSPOOL_API uint32_t KSCacheFetch(const KSCache* cache, const void* fingerprint, uint32_t type,
                                 uint64_t* valueOut) KSPOOL_NOEXCEPT;

/*
 * Tests whether a fingerprint is known and counts the answer: a hit raises the entry's reference
 * count (up to 16383), by which a memory limit later tells what to keep. `valueOut` as for
 * KSCacheFetch().
 *
 * Returns as KSCacheFetch().
 */
KSPOOL_API uint32_t KSCacheExists(KSCache* cache, const void* fingerprint, uint32_t type,
                                  uint64_t* valueOut) KSPOOL_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
