/* A session and a query: prints the POs of a data selection whose name matches a pattern.
 *
 *     cc query.c $(pkg-config --cflags --libs kspool) -o query
 *     KSPOOL_PASSWORD=... ./query http://127.0.0.1:9080 agent 1 "*.h"
 */
#include <stdio.h>
#include <stdlib.h>

#include "mb.h"
#include "platform/status.h"

static int failed(const char* what) {
    fprintf(stderr, "query: %s: %s\n", what, CRStatusToStringA(*__cr_errno_location()));
    return 1;
}

int main(int argc, char** argv) {
    MBPOFilter filter;
    char* line = NULL; /* owned by the cursor */
    uint32_t count = 0, status = CR_STATUS_OK;
    MBSession* session;
    MBPOCursor* found;
    if (argc != 5) return 2;
    session = MBInit(argv[1], 0, argv[2], getenv("KSPOOL_PASSWORD"));
    if (session == NULL) return failed("no session");
    filter.size = sizeof filter;
    MBPOFilterInit(&filter);      /* all POs ... */
    filter.criterion10 = argv[4]; /* ... whose tenth field, the name, matches */
    found =
        MBPOStringFindFirst(session, (uint32_t)strtoul(argv[3], NULL, 10), &filter, &line, &count);
    if (found == NULL && *__cr_errno_location() != CR_STATUS_NOT_FOUND) return failed("find");
    for (; found != NULL && status == CR_STATUS_OK; status = MBPOStringFindNext(found, &line))
        puts(line);
    printf("%lu found\n", (unsigned long)count);
    MBPOFindClose(found);
    MBShutdown(session);
    return 0;
}
