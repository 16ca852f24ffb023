/* For LD_PRELOAD: the program's clock is KSPOOL_TEST_LATER seconds ahead, so that files which a
 * test has just written are old to it. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdlib.h>
#include <time.h>

typedef int Clock(clockid_t, struct timespec*);

int clock_gettime(clockid_t clock, struct timespec* now) {
    const int result = ((Clock*)dlsym(RTLD_NEXT, "clock_gettime"))(clock, now);
    const char* later = getenv("KSPOOL_TEST_LATER");
    if (clock == CLOCK_REALTIME && later != NULL) now->tv_sec += atol(later);
    return result;
}

time_t time(time_t* out) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    if (out != NULL) *out = now.tv_sec;
    return now.tv_sec;
}
