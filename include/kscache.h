/*
 * KSCache: a fingerprint cache in the caller's memory.
 *
 * The cache answers "is this block of data known, and with which value?" for blocks that are named
 * by their fingerprints (digests). Lookups are exact: false positives occur only between blocks
 * with the same digest. Conventions that hold for every function here:
 *
 * 1. Keys. A key is a pointer to digest bytes and a fingerprint type, of which only the low 8 bits
 *    count. Type 3 means a 32-byte digest, any other type a 16-byte digest, and that many bytes are
 *    read, during the call only. The type is part of the key: the same bytes under two types are
 *    two entries. Bytes 12 to 15 select the tree, so digests must be well spread there, as those
 *    of cryptographic hashes are.
 * 2. Statuses. Functions that return a status return 0 (CR_STATUS_OK) for success. A NULL handle
 *    gives CR_STATUS_NULL_HANDLE (44), a handle without its magic CR_STATUS_BAD_HANDLE (82); both
 *    are stored in the calling thread's status slot as well. Any other missing argument gives
 *    CR_STATUS_INVALID_PARAMETER (9) and, except in save and load, leaves the slot alone.
 *    Handles are checked first.
 * 3. Status slot. *__cr_errno_location(), declared in platform/status.h. A function leaves it alone
 *    unless its description says that it stores a status there.
 * 4. Ownership. The caller owns a cache from KSCacheCreate() to KSCacheDestroy(). The cache copies
 *    keys and values; the callback's argument is the only pointer of the caller's that it keeps.
 * 5. Threads. The library takes no lock. Only one thread at a time may use a cache, even for
 *    lookups, which update counters. Different caches are independent, with one exception: when a
 *    page of a cache with `lockPages` cannot be unlocked, all memory of the process is unlocked.
 * 6. Memory. An entry takes one slot of 72 bytes in a page of `areaSize` slots (one memory mapping
 *    each), the root table 8 bytes for each of its 2^bits roots. Nothing is allocated per entry.
 * 7. Batches. A batch function does what a loop of its single calls does, in the same order, but
 *    the cache misses of many keys overlap. A batch is two to four times as fast when the cache is
 *    larger than the processor's caches. Lookups of known keys gain from batches of eight on; the
 *    full gain takes batches of some hundred keys.
 * 8. Stack. A call needs up to 48 KiB of stack, KSCacheCheck() up to 80 KiB, whatever the number of
 *    entries and the shape of their trees.
 * 9. Messages. The library reports failures on standard error. qlxSetSink()
 *    (platform/support.h) sends the messages elsewhere, or nowhere:
 *    docs/howto/redirect-messages.md.
 *
 * Arguments that mean the same everywhere:
 *
 *   cache          a cache of KSCacheCreate()
 *   fingerprint    digest of the key, convention 1
 *   type           fingerprint type of the key, convention 1
 *   value          value of the entry
 *   valueOut       NULL, or receives the value of a key that is found
 *   keys           keys and digests, the caller's
 *   count          number of keys
 *   values         NULL, or room for a value for each key
 *   statuses       NULL, or room for a status for each key
 *   arg            passed to the callback unchanged; may be NULL
 *   callbackArg    as given to KSCacheCreate()
 *   hold           a hold of KSCacheHoldFile()
 *   stream         where the report goes; NULL: standard output
 */
#ifndef KSCACHE_H
#define KSCACHE_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "cr_status.h"
#include "kspool_api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A cache. Opaque; made by KSCacheCreate(). */
typedef struct KSCache KSCache;

/* One entry as the cache stores it: exactly one slot of 72 bytes. */
typedef struct KSCacheNode {
    uint8_t fingerprint[32];    /* a 16-byte digest leaves bytes 16 to 31 unspecified */
    struct KSCacheNode* higher; /* entries that sort after this one; in a free slot: the next one */
    struct KSCacheNode* lower;  /* entries that sort before this one; NULL if free */
    uint64_t value;             /* the caller's value, as given when the entry was made */
    uint64_t refCount;          /* 1 to 16383 in an entry, 0 in a free slot */
    uint8_t type;               /* fingerprint type, low 8 bits */
} KSCacheNode;

/* A place in a walk by KSCacheNext(). All zero: before the first entry. The members are private. */
typedef struct KSCacheCursor {
    const void* page;        /* NULL before the first entry */
    const KSCacheNode* slot; /* where the next step goes on */
    uint64_t moves;          /* detects that entries have moved since the last step */
} KSCacheCursor;

/* A key of the batch functions. The digest stays the caller's and is read during the call only. */
typedef struct KSCacheKey {
    const void* fingerprint; /* the digest */
    uint32_t type;           /* fingerprint type, of which the low 8 bits count */
} KSCacheKey;

/* The statistics of KSCacheStats(). Sizes are in bytes. */
typedef struct KSCacheStatsRecord {
    uint64_t cacheSize;      /* all pages mapped now */
    uint64_t cachedItems;    /* entries */
    uint64_t hits;           /* adds and presence tests that found their fingerprint */
    uint64_t misses;         /* presence tests that did not */
    uint64_t freeListCount;  /* free slots, without those of `nodesAvailable` */
    uint32_t pageCount;      /* pages mapped now */
    uint32_t nodesAvailable; /* free slots at the end of the newest page */
    uint32_t lockPages;      /* as given to KSCacheCreate() */
    uint32_t areaSize;       /* slots per page as rounded, one header slot included */
    uint32_t bits;           /* the root table holds 2^bits roots */
    uint64_t nodeSize;       /* always 72 */
} KSCacheStatsRecord;

/*
 * Called for each add whose fingerprint is known already, on the caller's thread, before the add
 * returns. The callback must not throw, and must not reset or destroy the cache.
 *
 *   addArg  the last argument of that add
 */
typedef void (*KSCacheAddCallback)(void* addArg, void* callbackArg);

/*
 * Called for each entry of a walk. Returns 0 to go on, anything else to end the walk. The callback
 * must not throw, and must not reset or destroy the cache.
 *
 *   node      the live entry, which may be read during the call
 *   reserved  0
 */
typedef int (*KSCacheIterateCallback)(KSCache* cache, KSCacheNode* node, uint64_t value,
                                      int reserved, void* arg);

/*
 * The `bits` to pass to KSCacheCreate() for a number of entries: the base-2 logarithm, rounded up,
 * and one more, within 1 to 29. The root table then has two to four roots for each entry, so that
 * most searches meet one node or none.
 *
 *   expectedItems  entries that the cache is to hold
 */
KSPOOL_API uint32_t KSCacheBitsFor(uint64_t expectedItems) KSPOOL_NOEXCEPT;

/*
 * The `areaSize` to pass to KSCacheCreate() for a number of entries: from 970,900 entries on pages
 * of one to sixteen whole huge pages of 2 MiB, below that a 200th of the entries, at least 1024.
 * From 34,000 entries on, the unused end of the newest page is at most 3 % of the memory of all
 * pages (with system pages of 4 KiB).
 *
 *   expectedItems  entries that the cache is to hold
 */
KSPOOL_API uint32_t KSCacheAreaFor(uint64_t expectedItems) KSPOOL_NOEXCEPT;

/*
 * Makes an empty cache.
 *
 *   areaSize   slots of 72 bytes per page. Rounded up to whole system pages, at least 1024, and
 *              limited so that a page stays below 4 GiB. KSCacheAreaFor() gives a good value:
 *              memory is released in whole pages, and the newest page is partly unused.
 *   bits       the root table gets 2^bits roots of 8 bytes: 1 to 29; anything else means 4.
 *              KSCacheBitsFor() gives a good value. The table does not grow with the cache: too few
 *              roots make deep trees and slow searches. When memory for the table is short, it is
 *              halved until it can be allocated.
 *   lockPages  not 0: every page is locked into memory. A failed lock is reported as a warning, and
 *              the page is used unlocked.
 *   callback   called for each add of a known fingerprint; may be NULL.
 *   callbackArg  passed to the callback unchanged; may be NULL.
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
 * stay. The root table is allocated anew. NULL is allowed. The handle is not checked.
 */
KSPOOL_API void KSCacheReset(KSCache* cache) KSPOOL_NOEXCEPT;

/*
 * Copies the cache's counters and settings, in constant time.
 *
 *   stats  the caller's record, which is filled
 *
 * Returns 0; 44 or 82, also in the status slot; 9 for NULL `stats`.
 */
KSPOOL_API uint32_t KSCacheStats(const KSCache* cache, KSCacheStatsRecord* stats) KSPOOL_NOEXCEPT;

/*
 * Records a fingerprint with a value, or notes that it is already known.
 *
 *   value   the caller's 64 bits, kept with a new entry. A known entry keeps its own value.
 *   addArg  passed to the cache's callback when the fingerprint is known; NULL: no callback.
 *
 * Returns
 *   CR_STATUS_OK (0)      a new entry was made, with reference count 1;
 *   CR_STATUS_EXISTS (1)  the fingerprint was known: the hit is counted, the entry's reference
 *                         count raised (up to 16383), the callback called; slot left alone;
 *   44, 82                bad handle, also in the status slot;
 *   9                     NULL fingerprint;
 *   any other value       the status of a page that could not be mapped, also in the status slot.
 *                         No entry was made, and the cache remains usable; this is logged once
 *                         until a page can be mapped again.
 */
KSPOOL_API uint32_t KSCacheAdd(KSCache* cache, const void* fingerprint, uint32_t type,
                               uint64_t value, void* addArg) KSPOOL_NOEXCEPT;

/*
 * Gets the value of a fingerprint and changes nothing, not even counters. `valueOut` belongs to the
 * caller, may be NULL, and is written only when the fingerprint is found.
 *
 * Returns 0; CR_STATUS_NOT_FOUND (2), slot left alone; 44 or 82, also in the status slot; 9 for a
 * NULL fingerprint.
 */
KSPOOL_API uint32_t KSCacheFetch(const KSCache* cache, const void* fingerprint, uint32_t type,
                                 uint64_t* valueOut) KSPOOL_NOEXCEPT;

/*
 * Tests whether a fingerprint is known and counts the hit or miss. A hit raises the entry's
 * reference count (up to 16383), by which KSCacheCheck() chooses the entries that it keeps.
 * `valueOut` as for KSCacheFetch().
 *
 * Returns as KSCacheFetch().
 */
KSPOOL_API uint32_t KSCacheExists(KSCache* cache, const void* fingerprint, uint32_t type,
                                  uint64_t* valueOut) KSPOOL_NOEXCEPT;

/*
 * Removes one entry, whatever its reference count. Its slot is the next to be used again.
 *
 * Returns 0; CR_STATUS_NOT_FOUND (2), slot left alone, nothing changed; 44 or 82, also in the
 * status slot; 9 for a NULL fingerprint.
 */
KSPOOL_API uint32_t KSCacheDelete(KSCache* cache, const void* fingerprint,
                                  uint32_t type) KSPOOL_NOEXCEPT;

/* ---- Batches: convention 7 ---- */

/*
 * KSCacheExists() for each of `count` keys. A batch of one known key takes about a fifth longer
 * than a single call, four known keys take as long as four single calls, and eight take less. The
 * time per key is shortest in batches of some hundred keys.
 *
 *   keys      belong to the caller, as do their digests.
 *   values    NULL, or room for `count` values. As with single calls, the value of a key that is
 *             not found is not written.
 *   statuses  NULL, or room for `count` statuses: for each key that of the single call.
 *
 * Returns 0, also when keys were not found; 44 or 82, also in the status slot; 9 when `count` is
 * not 0 and `keys` or the fingerprint of one of them is NULL. After any status but 0 nothing was
 * done.
 */
KSPOOL_API uint32_t KSCacheExistsBatch(KSCache* cache, const KSCacheKey* keys, size_t count,
                                       uint64_t* values, uint32_t* statuses) KSPOOL_NOEXCEPT;

/* KSCacheFetch() for each of `count` keys; arguments and statuses as for KSCacheExistsBatch(). */
KSPOOL_API uint32_t KSCacheFetchBatch(const KSCache* cache, const KSCacheKey* keys, size_t count,
                                      uint64_t* values, uint32_t* statuses) KSPOOL_NOEXCEPT;

/*
 * KSCacheAdd() for each of `count` keys. The second occurrence of a key in a batch counts as known.
 *
 *   values    `count` values; read only.
 *   addArgs   NULL for no callbacks, or one argument a key.
 *   statuses  NULL, or room for `count` statuses: for each key that of the single call.
 *
 * Returns 0, also when keys were known already; 44 or 82, also in the status slot; 9 when `count`
 * is not 0 and `keys`, `values` or the fingerprint of a key is NULL. After 44, 82 and 9 nothing was
 * done. Any other value is the status of the first page that could not be mapped: all keys were
 * handled, `statuses` has the result of each, and the status slot holds the last such status.
 */
KSPOOL_API uint32_t KSCacheAddBatch(KSCache* cache, const KSCacheKey* keys, const uint64_t* values,
                                    void* const* addArgs, size_t count,
                                    uint32_t* statuses) KSPOOL_NOEXCEPT;

/* ---- Walk ---- */

/*
 * Calls `callback` for each entry, in the order of memory: page by page, slot by slot. The callback
 * may use the cache: an entry that it deletes is not visited any more, one that it adds is visited
 * only if its slot lies ahead. While a walk is under way no entry moves: KSCacheCheck() and
 * KSCachePrune() refuse (CR_STATUS_BUSY) and KSCacheReclaim() does nothing. Walks may be nested.
 *
 *   callback  called for each entry
 *
 * Returns 0, also when the callback ended the walk; 44 or 82, also in the status slot; 9 for a NULL
 * callback.
 */
KSPOOL_API uint32_t KSCacheIterate(KSCache* cache, KSCacheIterateCallback callback,
                                   void* arg) KSPOOL_NOEXCEPT;

/*
 * The same walk with one entry per call, for callers that cannot use a callback. The cache may be
 * used between calls: as with KSCacheIterate(), a deleted entry is no longer visited, and an added
 * one only if its slot lies ahead. KSCacheCheck() and KSCacheReclaim() are allowed too, but the
 * walk ends once they have compacted the cache, since entries may have moved past the cursor.
 *
 *   cursor  the caller's place in the walk, zeroed before the first call; needs no release
 *   node    receives the entry, which may be read until it is deleted or entries move; unchanged
 *           when there is none
 *
 * Returns 0; CR_STATUS_NOT_FOUND (2) after the last entry, slot left alone; 44 or 82, also in the
 * status slot, 82 also when the cache was compacted or reset since the walk began; 9 for a NULL
 * `cursor` or `node`.
 */
KSPOOL_API uint32_t KSCacheNext(const KSCache* cache, KSCacheCursor* cursor,
                                const KSCacheNode** node) KSPOOL_NOEXCEPT;

/* ---- File ---- */

/*
 * Saves all entries to a file, whose format docs/cache-format.md describes: fingerprints, types and
 * values; reference counts and counters are not saved. An existing file is truncated, a new one has
 * mode 0644. An empty cache leaves no file: one of that name, or the one to which a symbolic link
 * leads, is removed; a link, a device and a pipe stay.
 *
 *   path   file name, read during the call only.
 *   count  NULL, or receives the number of entries saved when the call succeeds.
 *
 * Returns 0; 44, 82, or 9 for a NULL path; the status of the system error when the file cannot be
 * opened, which is logged as a warning. All but 0 are stored in the status slot. Write errors are
 * not reported: the file may then be incomplete, and KSCacheLoad() refuses it. To keep the last
 * good file, use KSCacheReplaceFile().
 */
KSPOOL_API uint32_t KSCacheSave(const KSCache* cache, const char* path,
                                uint64_t* count) KSPOOL_NOEXCEPT;

/*
 * Adds all entries of a file to a cache, as KSCacheAdd() with a NULL `addArg` does: a fingerprint
 * that is known already counts a hit. The whole file is checked before the first entry is added, so
 * that a refused file leaves the cache as it was. A file that changes during the call gives no
 * wrong entries: the first block that is not what was checked, or cannot be read again, ends the
 * call as the end of the file would. The call then returns 0, logs a warning, and leaves
 * CR_STATUS_CORRUPT or CR_STATUS_READ_FAILED in the status slot. The cache then lacks entries of
 * the file, which must not be replaced by it: set the slot to 0 before the load, and look at it.
 *
 *   path   file name, read during the call only.
 *   count  NULL, or receives the number of entries read when the call succeeds, including entries
 *          that were known already and entries for which no page could be mapped. The latter are
 *          logged and leave their status in the slot, as with KSCacheAdd().
 *
 * Returns 0; all others are stored in the status slot as well:
 *   44, 82                       bad handle;
 *   9                            NULL path;
 *   CR_STATUS_BAD_HANDLE (82)    the file is not a cache file, or its header cannot be read;
 *   CR_STATUS_SEEK_FAILED (23)   the file is not seekable (a pipe, for whose writer the call does
 *                                not wait);
 *   CR_STATUS_READ_FAILED (25)   the file could not be read;
 *   CR_STATUS_NO_MEMORY (22)     no memory for 4 bytes for each 26 kB of the file;
 *   CR_STATUS_CORRUPT (32)       the checksum of the file differs;
 *   any other value              the status of the system error when the file cannot be opened;
 *                                that of EBADF when it would be opened as descriptor 0.
 */
KSPOOL_API uint32_t KSCacheLoad(KSCache* cache, const char* path, uint64_t* count) KSPOOL_NOEXCEPT;

/* A cache file that is held. Opaque; made by KSCacheHoldFile(). */
typedef struct KSCacheHold KSCacheHold;

/*
 * Holds a cache file for the caller: until the hold is released, or the process ends, no other hold
 * can be had, and no other process replaces the file. For a program that loads a file, works, and
 * replaces it at the end. Readers are not kept out. The hold is a lock of PATH.lock, where PATH is
 * the path with symbolic links resolved; this file has the process id of the holder, and stays.
 * The file itself need not exist. A child process of fork() shares the hold, until either
 * gives it back: it is of no use to the other from then on, but for KSCacheReleaseFile(). Threads
 * may share a hold. The files PATH.lock and PATH.new are the library's.
 *
 *   path  file name, read during the call only.
 *   hold  receives the hold, which the caller must pass to KSCacheReleaseFile(); unchanged by a
 *         failure.
 *
 * Returns 0; all others are stored in the status slot and, except for 9, logged as a warning:
 *   9                    NULL path or `hold`;
 *   CR_STATUS_BUSY (11)  held already; the warning names the process;
 *   CR_STATUS_BAD_HANDLE (82)  there is a file that KSCacheReplaceFile() would refuse, or PATH.lock
 *                        has what no holder writes into it;
 *   any other value      the status of the system error.
 */
KSPOOL_API uint32_t KSCacheHoldFile(const char* path, KSCacheHold** hold) KSPOOL_NOEXCEPT;

/* Releases a hold and frees it. NULL is allowed. errno and the status slot are left alone. */
KSPOOL_API void KSCacheReleaseFile(KSCacheHold* hold) KSPOOL_NOEXCEPT;

/*
 * Replaces a cache file so that a good file is there at any time, also after a crash, a full disk
 * or a power cut. A new file PATH.new, in the format of KSCacheSave(), is written beside the old
 * one, synced, read back and verified; then it takes the name of the old one, and the folder is
 * synced. The new file has owner, group and mode of the old one; without an old one, mode 0600. An
 * empty cache leaves no file: an old one is removed, and the folder is synced. A PATH.new that an
 * interrupted call left behind is removed. One call at a time replaces a file, also among those who
 * share a hold.
 *
 *   path   file name, read during the call only. Symbolic links are followed, so that the file is
 *          replaced and not the link.
 *   hold   a hold of the file, from KSCacheHoldFile(); NULL: the file is held for this call.
 *   count  NULL, or receives the number of entries saved when the call succeeds.
 *
 * Returns 0; all others are stored in the status slot and, except for NULL arguments and bad
 * handles, logged as a warning that names the step that failed:
 *   44, 82                      bad handle (82 also for an invalid `hold`, and for one that a
 *                               process that shares it gave back);
 *   9                           NULL path, or a hold of another file;
 *   CR_STATUS_BUSY (11)         held by another process, or by a hold that was not passed, or
 *                               being replaced by another call;
 *   CR_STATUS_BAD_HANDLE (82)   there is a file that is neither empty nor a cache file, PATH.lock
 *                               has what no holder writes into it, or PATH.new.lock exists, so
 *                               that PATH.new may be somebody's cache file;
 *   CR_STATUS_CORRUPT (32), CR_STATUS_READ_FAILED (25), CR_STATUS_SEEK_FAILED (23),
 *   CR_STATUS_NO_MEMORY (22)    reading back failed, or returned other bytes than were written;
 *   any other value             the status of the system error, such as that of a full disk.
 * After any status but 0 the old file is unchanged and no new file but PATH.lock remains. The
 * exception is a failed sync of the folder: the new file is in place then, but a power cut may
 * bring back the old one.
 */
KSPOOL_API uint32_t KSCacheReplaceFile(const KSCache* cache, const char* path,
                                       const KSCacheHold* hold, uint64_t* count) KSPOOL_NOEXCEPT;

/* ---- Memory limit ---- */

/*
 * Holds a cache to a memory limit. When its pages take more, entries with low reference counts are
 * dropped until the others take at most the limit, and the pages are compacted (KSCacheReclaim()).
 * This is count-based eviction. Entries with equal counts are dropped together, so a cache whose
 * entries all have the same count may be emptied: cyclic scans larger than the limit defeat it. The
 * pages of the remaining entries may take somewhat more than the limit: their headers, the end of
 * the last page, and another page when too few slots are free for a compaction.
 *
 *   limit  MiB; 0 for no limit, which compacts only. The root table does not count.
 *
 * Returns 0; 44, 82, or CR_STATUS_BUSY (11) during a walk, each also in the status slot.
 */
KSPOOL_API uint32_t KSCacheCheck(KSCache* cache, uint32_t limit) KSPOOL_NOEXCEPT;

/*
 * Returns the number of free slots on the free list and reports it as a trace. A deletion frees its
 * slot at once, so that there is nothing to prune. Returns 0 with 44, 82, or CR_STATUS_BUSY (11)
 * during a walk, in the status slot.
 */
KSPOOL_API uint64_t KSCachePrune(KSCache* cache) KSPOOL_NOEXCEPT;

/*
 * Compacts: moves entries from the last pages into free slots at lower addresses and releases the
 * pages that this empties. Only the addresses of entries change. A cache that is left without pages
 * is initialised anew, with no hits and misses. Does nothing for a NULL handle, during a walk, and
 * while `freeListCount` is below `areaSize`, when hardly a page could be emptied. The handle is not
 * checked.
 */
KSPOOL_API void KSCacheReclaim(KSCache* cache) KSPOOL_NOEXCEPT;

/* ---- Reports ---- */

/*
 * Write a report to `stream` (NULL: standard output), which is not flushed. KSCacheDump() writes a
 * line for each slot, including free ones; KSCacheDumpSorted() a line for each entry, tree by tree,
 * from the highest to the lowest; KSCacheDumpRaw() a summary, each slot of each page, and the free
 * list. The heading of a page shows its free count minus one; a count of 0 prints as 4294967295.
 * The free count is that of the slots never used, or free at the last compaction of the page:
 * deletes and reused slots do not change it. All three do nothing for a NULL cache. The handle is
 * not checked.
 */
KSPOOL_API void KSCacheDump(FILE* stream, const KSCache* cache) KSPOOL_NOEXCEPT;
KSPOOL_API void KSCacheDumpSorted(FILE* stream, const KSCache* cache) KSPOOL_NOEXCEPT;
KSPOOL_API void KSCacheDumpRaw(FILE* stream, const KSCache* cache) KSPOOL_NOEXCEPT;

/*
 * Writes a summary of a cache as one trace message; nothing while tracing is off or for a NULL
 * cache. The handle is not checked.
 *
 *   name  the name of the cache in the summary; not NULL
 */
KSPOOL_API void _ksCacheDump(const KSCache* cache, const char* name) KSPOOL_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
