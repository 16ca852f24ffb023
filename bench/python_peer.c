/* The loop of a C program over the digests of bench/python.py, in batches of the same size. */
#include <stdint.h>
#include <stdlib.h>
#include <time.h>

#include "kscache.h"

enum { BATCH = 1000, WIDTH = 32, TYPE = 3 };
enum { WORK_ADD, WORK_EXISTS, WORK_FETCH };

static double now(void) {
    struct timespec time;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return (double)time.tv_sec + 1e-9 * (double)time.tv_nsec;
}

/* Seconds of the processor for a work over all digests; the keys are made before. Negative without
 * memory. */
double peerSeconds(KSCache* cache, int work, const uint8_t* digests, size_t count,
                   uint64_t* values);

double peerSeconds(KSCache* cache, int work, const uint8_t* digests, size_t count,
                   uint64_t* values) {
    KSCacheKey* keys = malloc(count * sizeof *keys);
    if (keys == NULL) return -1;
    for (size_t i = 0; i < count; ++i) {
        keys[i].fingerprint = digests + i * WIDTH;
        keys[i].type = TYPE;
    }
    const double start = now();
    for (size_t i = 0; i < count; i += BATCH) {
        const size_t some = count - i < BATCH ? count - i : BATCH;
        uint32_t statuses[BATCH];
        if (work == WORK_ADD)
            KSCacheAddBatch(cache, keys + i, values + i, NULL, some, statuses);
        else if (work == WORK_EXISTS)
            KSCacheExistsBatch(cache, keys + i, some, values + i, statuses);
        else
            KSCacheFetchBatch(cache, keys + i, some, values + i, statuses);
    }
    const double seconds = now() - start;
    free(keys);
    return seconds;
}
