/*
 * The C part of the Python package: batches over contiguous digests and walks, both in blocks; a
 * queue of messages; and ending a request by Ctrl-C. The keys of a block are on the stack, so that
 * a batch allocates nothing. Blocks of a thousand keys get the full gain of batches (kscache.h,
 * convention 7).
 *
 * Without the GIL other Python code may change a buffer during its batch. An add reads a digest
 * more than once, to find its place and to store it, so adds get copies. Lookups change no tree, so
 * a digest that changes meanwhile is found or not, and nothing else happens.
 *
 * Everything above "Definitions" is declared to Python as well.
 */
#include <errno.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "kscache.h"
#include "mb.h"
#include "platform/status.h"
#include "platform/support.h"

enum { BLOCK_KEYS = 1000, BLOCK_ENTRIES = 512 };
enum { BATCH_ADD, BATCH_EXISTS, BATCH_FETCH };

/* Entries of a walk. */
typedef struct EntryBlock {
    uint8_t digests[BLOCK_ENTRIES * 32]; /* 32 bytes for each entry, whose type may use 16 */
    uint64_t values[BLOCK_ENTRIES];
    uint8_t types[BLOCK_ENTRIES];
    size_t count;
    int more; /* whether entries follow */
} EntryBlock;

/*
 * A batch function of kscache.h over digests of one type: 32 bytes each for type 3, 16 for others.
 * A failure does not end the batch. Returns the number of statuses 0, or minus the first failure.
 */
static int64_t runBatch(KSCache* cache, int batch, const uint8_t* digests, size_t count,
                        uint32_t type, uint64_t* values, uint32_t* statuses);

/* KSCacheNext() until the block is full or the walk has ended. */
static uint32_t nextEntries(const KSCache* cache, KSCacheCursor* cursor, EntryBlock* block);

/*
 * A message of the library. Messages are queued until the Python call that caused them has ended: a
 * log called from C code could not raise, could not run in a thread that waits for the GIL while
 * another one forks, and could be called after the interpreter has ended.
 */
typedef struct Message {
    struct Message* next;
    uint32_t level; /* of Python's logging */
    uint32_t status;
    char text[];
} Message;

/* Where messages go: to stderr, nowhere, or to takeMessages(). 1038 on a platform without sinks. */
enum { TO_STDERR, TO_NOBODY, TO_PYTHON };
static uint32_t sendMessages(int to);

/* Takes all queued messages, the newest first; the caller frees each. */
static Message* takeMessages(void);

/*
 * Lets SIGINT end the main thread's request of this session, until the next watch(), whose session
 * may be NULL. Python's own handler would only record the signal until the request has ended.
 */
static void watch(MBSession* session);

/* Why the last call that returns a handle returned none. */
static uint32_t lastStatus(void);

/* Of the platform only what is used: an implementation of its first contract has fewer functions.
 */
const char* CRStatusToStringA(uint32_t status);
void free(void* memory);

/* ---- Definitions ---- */

#pragma weak qlxSetSink

enum { WIDE_TYPE = 3, WIDE = 32, NARROW = 16 };

static uint32_t runBlock(KSCache* cache, int batch, const KSCacheKey* keys, size_t count,
                         uint64_t* values, uint32_t* statuses) {
    if (batch == BATCH_ADD) return KSCacheAddBatch(cache, keys, values, NULL, count, statuses);
    if (batch == BATCH_EXISTS) return KSCacheExistsBatch(cache, keys, count, values, statuses);
    return KSCacheFetchBatch(cache, keys, count, values, statuses);
}

static int64_t runBatch(KSCache* cache, int batch, const uint8_t* digests, size_t count,
                        uint32_t type, uint64_t* values, uint32_t* statuses) {
    const size_t width = type == WIDE_TYPE ? WIDE : NARROW;
    uint8_t copies[BLOCK_KEYS * WIDE];
    KSCacheKey keys[BLOCK_KEYS];
    uint32_t unwanted[BLOCK_KEYS], first = CR_STATUS_OK;
    int64_t done = 0;
    for (size_t at = 0; at < count; at += BLOCK_KEYS) {
        const size_t some = count - at < BLOCK_KEYS ? count - at : BLOCK_KEYS;
        uint32_t* told = statuses != NULL ? statuses + at : unwanted;
        const uint8_t* from = digests + at * width;
        if (batch == BATCH_ADD) from = memcpy(copies, from, some * width);
        for (size_t i = 0; i < some; ++i) {
            keys[i].fingerprint = from + i * width;
            keys[i].type = type;
        }
        const uint32_t status =
            runBlock(cache, batch, keys, some, values != NULL ? values + at : NULL, told);
        if (status != CR_STATUS_OK && first == CR_STATUS_OK) first = status;
        for (size_t i = 0; i < some; ++i)
            done += told[i] == CR_STATUS_OK;
    }
    return first == CR_STATUS_OK ? done : -(int64_t)first;
}

static uint32_t nextEntries(const KSCache* cache, KSCacheCursor* cursor, EntryBlock* block) {
    const KSCacheNode* node = NULL;
    uint32_t status = CR_STATUS_OK;
    for (block->count = 0; block->count < BLOCK_ENTRIES; ++block->count) {
        status = KSCacheNext(cache, cursor, &node);
        if (status != CR_STATUS_OK) break;
        memcpy(block->digests + block->count * WIDE, node->fingerprint, WIDE);
        block->values[block->count] = node->value;
        block->types[block->count] = node->type;
    }
    KSCacheCursor ahead = *cursor;
    block->more = status == CR_STATUS_OK && KSCacheNext(cache, &ahead, &node) == CR_STATUS_OK;
    return status == CR_STATUS_NOT_FOUND ? CR_STATUS_OK : status;
}

/* Lock-free, since a lock could be held when the process forks. */
static Message* waiting;

static void keepMessage(uint32_t level, uint32_t status, const char* text, void* wanted) {
    const size_t size = strlen(text) + 1;
    Message* message = wanted != NULL ? malloc(sizeof *message + size) : NULL;
    if (message == NULL) return;
    message->level = level >= QLX_LEVEL_ERROR ? 40 : level >= QLX_LEVEL_WARNING ? 30 : 20;
    message->status = status;
    memcpy(message->text, text, size);
    message->next = __atomic_load_n(&waiting, __ATOMIC_RELAXED);
    while (!__atomic_compare_exchange_n(&waiting, &message->next, message, 1, __ATOMIC_RELEASE,
                                        __ATOMIC_RELAXED)) {
    }
}

static uint32_t sendMessages(int to) {
    if (qlxSetSink == NULL) return CR_STATUS_SYSTEM_BASE + ENOSYS;
    qlxSetSink(to == TO_STDERR ? NULL : keepMessage, to == TO_PYTHON ? &waiting : NULL);
    return CR_STATUS_OK;
}

static Message* takeMessages(void) {
    return __atomic_exchange_n(&waiting, NULL, __ATOMIC_ACQUIRE);
}

static uint32_t lastStatus(void) {
    return *__cr_errno_location();
}

static MBSession* volatile watched; /* lives at least until the next watch() */
static struct sigaction pythons;

static void endRequest(int number) {
    if (watched != NULL && gettid() == getpid()) MBAbort(watched);
    pythons.sa_handler(number);
}

static void watch(MBSession* session) {
    struct sigaction now;
    if (gettid() != getpid() || sigaction(SIGINT, NULL, &now) != 0) return;
    watched = session;
    if (now.sa_handler == endRequest) {
        if (session == NULL) sigaction(SIGINT, &pythons, NULL);
    } else if (session != NULL && now.sa_handler != SIG_DFL && now.sa_handler != SIG_IGN &&
               (now.sa_flags & SA_SIGINFO) == 0) {
        pythons = now;
        now.sa_handler = endRequest;
        sigaction(SIGINT, &now, NULL);
    }
}
