/*
 * For LD_PRELOAD: from main() on, the FAIL_NTH-th call of those below fails, with FAIL_ALL every
 * one after it too, with FAIL_ONLY those of that name alone. Calls that libraries for cryptography
 * make are left alone, as are those of fts_open(): they do not survive it. With FAIL_COUNT, their
 * number goes into the file of that name at the end.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <fts.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "tests/support/failing_calls.h"

static struct FailurePlan plan;
static const char* only;
static int armed;
static __thread int busy;

static int fails(const void* caller, const char* name, int error) {
    Dl_info info;
    if (!armed || busy || (only != NULL && strcmp(only, name) != 0)) return 0;
    busy = 1;
    const int known = dladdr(caller, &info) != 0 && info.dli_fname != NULL;
    busy = 0;
    if (known &&
        (strstr(info.dli_fname, "crypto") != NULL || strstr(info.dli_fname, "ssl") != NULL))
        return 0;
    if (!failsNow(&plan)) return 0;
    errno = error;
    return 1;
}
#define NEXT(name) ((__typeof__(&failing_##name))dlsym(RTLD_NEXT, #name))
#define DEFINITION(type, name, parameters, arguments, failure, error, next)                 \
    type failing_##name parameters __asm__(#name);                                          \
    type failing_##name parameters {                                                        \
        return fails(__builtin_return_address(0), #name, error) ? failure : next arguments; \
    }
#define OF_MEMORY(call, type, name, parameters, arguments, failure, error) \
    extern type __libc_##name parameters;                                  \
    DEFINITION(type, name, parameters, arguments, failure, error, __libc_##name)
#define OF_FILES(call, type, name, parameters, arguments, failure, error) \
    DEFINITION(type, name, parameters, arguments, failure, error, NEXT(name))

OF_MEMORY(, void*, malloc, (size_t size), (size), NULL, ENOMEM)
MEMORY_CALLS(OF_MEMORY)
FILE_CALLS(OF_FILES)
OF_FILES(, int, fsync, (int fd), (fd), -1, EIO)
OF_FILES(, int, rename, (const char* from, const char* to), (from, to), -1, EACCES)

FTS* fts_open(char* const* paths, int options, int (*order)(const FTSENT**, const FTSENT**)) {
    busy = 1;
    FTS* walk = ((__typeof__(&fts_open))dlsym(RTLD_NEXT, "fts_open"))(paths, options, order);
    busy = 0;
    return walk;
}

typedef int Main(int, char**, char**);
static Main* program;

static int armedMain(int argc, char** argv, char** environment) {
    if (getenv("FAIL_NTH") != NULL) plan.nth = strtoul(getenv("FAIL_NTH"), NULL, 10);
    plan.fromThenOn = getenv("FAIL_ALL") != NULL;
    only = getenv("FAIL_ONLY");
    armed = 1;
    const int code = program(argc, argv, environment);
    armed = 0;
    if (getenv("FAIL_COUNT") != NULL) {
        FILE* out = fopen(getenv("FAIL_COUNT"), "w");
        fprintf(out, "%zu\n", plan.seen);
        fclose(out);
    }
    return code;
}

int __libc_start_main(Main* main, int argc, char** argv, void (*init)(void), void (*fini)(void),
                      void (*loaderFini)(void), void* stack) {
    program = main;
    int (*next)(Main*, int, char**, void (*)(void), void (*)(void), void (*)(void), void*) =
        (__typeof__(next))dlsym(RTLD_NEXT, "__libc_start_main");
    return next(armedMain, argc, argv, init, fini, loaderFini, stack);
}
