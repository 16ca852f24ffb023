/* Copies a cache file without the entries whose value is below a minimum.
 *
 *     cc iterate.c $(pkg-config --cflags --libs kspool) -o iterate
 *     ./iterate blocks.cache 100 newer.cache
 */
#include <stdio.h>
#include <stdlib.h>

#include "kscache.h"
#include "platform/status.h"

struct Work {
    uint64_t least;
    unsigned long dropped;
};

/* Called for each entry, which it may delete; 0 continues the walk. */
static int dropOld(KSCache* cache, KSCacheNode* node, uint64_t value, int reserved, void* arg) {
    struct Work* work = arg;
    (void)reserved;
    if (value >= work->least) return 0;
    ++work->dropped;
    return KSCacheDelete(cache, node->fingerprint, node->type) == CR_STATUS_OK ? 0 : 1;
}

static int failed(const char* what, uint32_t status) {
    fprintf(stderr, "iterate: %s: %s\n", what, CRStatusToStringA(status));
    return 1;
}

int main(int argc, char** argv) {
    struct Work work = {0, 0};
    uint64_t loaded = 0;
    uint32_t status;
    KSCache* cache;
    if (argc != 4) return 2;
    work.least = strtoull(argv[2], NULL, 10);
    cache = KSCacheCreate(KSCacheAreaFor(1000000), KSCacheBitsFor(1000000), 0, NULL, NULL);
    if (cache == NULL) return failed("create", *__cr_errno_location());
    status = KSCacheLoad(cache, argv[1], &loaded);
    if (status != CR_STATUS_OK) return failed(argv[1], status);
    KSCacheIterate(cache, dropOld, &work);
    status = KSCacheSave(cache, argv[3], NULL);
    if (status != CR_STATUS_OK) return failed(argv[3], status);
    printf("%lu entries, %lu dropped\n", (unsigned long)loaded, work.dropped);
    KSCacheDestroy(cache);
    return 0;
}
