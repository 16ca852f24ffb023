/* A C99 program that uses the library as an agent would, and every public header. */
#include <stdio.h>
#include <string.h>

#include "cr_status.h"
#include "ks.h"
#include "ks_option.h"
#include "kscache.h"
#include "kspool_version.h"
#include "mb.h"
#include "platform/status.h"
#include "platform/support.h"
#include "platform/ws.h"

static void countRepeat(void* addArg, void* callbackArg) {
    *(int*)callbackArg += *(int*)addArg;
}

int main(void) {
    int repeats = 0;
    int one = 1;
    uint64_t value = 0;
    unsigned char digest[32];
    KSOption option = {KS_OPT_LOGIN, {0}};
    WSOption transport = {WS_OPT_RESPONSE_TIMEOUT, {30}};
    KSCache* cache = KSCacheCreate(2000, 10, 0, countRepeat, &repeats);
    memset(digest, 0x5a, sizeof digest);
    if (cache == NULL || sizeof option != 16 || sizeof transport != 16) return 1;
    if (KSCacheAdd(cache, digest, CR_FP_SHA256, 42, &one) != CR_STATUS_OK) return 2;
    if (KSCacheAdd(cache, digest, CR_FP_SHA256, 43, &one) != CR_STATUS_EXISTS) return 3;
    if (KSCacheExists(cache, digest, CR_FP_SHA256, &value) != CR_STATUS_OK || value != 42) return 4;
    if (KSCacheFetch(cache, digest, CR_FP_MD5, &value) != CR_STATUS_NOT_FOUND) return 5;
    if (KSCacheBitsFor(1000000) != 21 || KSCacheBitsFor(1) != 1 || KSCacheBitsFor(0) != 1) return 8;
    if (KSCacheBitsFor(1025) != 12 || KSCacheBitsFor(UINT64_MAX) != 29) return 9;
    KSCacheDestroy(cache);
    KSCacheDestroy(NULL);
    KSCacheReset(NULL);
    KSCacheDumpSorted(NULL, NULL);
    _ksDump(NULL);
    MBShutdown(NULL);
    MBPOFindClose(NULL);
    if (KSCacheStats(NULL, NULL) != CR_STATUS_NULL_HANDLE) return 6;
    if (*__cr_errno_location() != CR_STATUS_NULL_HANDLE || repeats != 1) return 7;
    printf("%s with %s: %s\n", OSGetProcName(0), kspoolVersion(), CRStatusToStringA(CR_STATUS_OK));
    return 0;
}
