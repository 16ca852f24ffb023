/* A C99 program that links the library, includes every public header and uses each family. */
#include <stdio.h>
#include <stdlib.h>
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

/* A platform may leave three calls out; `offered` is the status that then takes their place. */
static int useSession(uint32_t offered) {
    MBEvent event = {.size = sizeof event};
    MBStatistics statistics = {.size = sizeof statistics};
    MBSession* session = MBInitWithAgentCfg("", 7, NULL, NULL, "/dev/null");
    const uint32_t refused = MBDirCreate(session, "/x");
    int bad = session == NULL || refused != WS_STATUS_NO_SERVER || MBAbort(session) != offered;
    bad |= MBLastEvent(session, &event) != offered || event.size != sizeof event;
    bad |= MBGetStatistics(session, &statistics) != offered || statistics.requests != 0;
    MBShutdown(session);
    return bad;
}

int main(int count, char** arguments) {
    int repeats = 0, one = 1;
    uint64_t value = 0;
    const unsigned char digest[32] = {0x5a};
    KSConfig config = {0};
    const KSOption option = {KS_OPT_LOGIN, {0}};
    const WSOption transport = {WS_OPT_RESPONSE_TIMEOUT, {30}};
    KSCache* cache = KSCacheCreate(2000, KSCacheBitsFor(1000), 0, countRepeat, &repeats);
    if (sizeof option != 16 || sizeof transport != 16) return 1;
    if (KSCacheAdd(cache, digest, CR_FP_SHA256, 42, &one) != CR_STATUS_OK) return 2;
    if (KSCacheAdd(cache, digest, CR_FP_SHA256, 43, &one) != CR_STATUS_EXISTS) return 3;
    if (KSCacheFetch(cache, digest, CR_FP_SHA256, &value) != CR_STATUS_OK || value != 42) return 4;
    KSCacheDestroy(cache);
    if (KSConfigSet(&config, &option, 1) != CR_STATUS_INVALID_PARAMETER || repeats != 1) return 5;
    if (KSCacheStats(NULL, NULL) != CR_STATUS_NULL_HANDLE) return 6;
    if (*__cr_errno_location() != CR_STATUS_NULL_HANDLE) return 7;
    KSCacheDestroy(NULL);
    KSCacheReset(NULL);
    KSCacheDumpSorted(NULL, NULL);
    _ksDump(NULL);
    MBShutdown(NULL);
    MBPOFindClose(NULL);
    if (useSession(count > 1 ? (uint32_t)atoi(arguments[1]) : 0) != 0) return 8;
    printf("%s with %s: %s\n", OSGetProcName(0), kspoolVersion(), CRStatusToStringA(CR_STATUS_OK));
    return 0;
}
