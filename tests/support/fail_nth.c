/*
 * For LD_PRELOAD: from main() on, the FAIL_NTH-th call of those below fails, with FAIL_ALL every
 * one after it too. Calls that libraries for cryptography make are left alone, as are those of
 * fts_open(): they do not survive it. With FAIL_COUNT, their number goes into the file of that name
 * at the end.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <fts.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

extern void* __libc_malloc(size_t);
extern void* __libc_calloc(size_t, size_t);
extern void* __libc_realloc(void*, size_t);

static long nth, count;
static int all, armed;
static __thread int busy;

static int fails(const void* caller, int error) {
    Dl_info info;
    if (!armed || busy) return 0;
    busy = 1;
    const int known = dladdr(caller, &info) != 0 && info.dli_fname != NULL;
    busy = 0;
    if (known &&
        (strstr(info.dli_fname, "crypto") != NULL || strstr(info.dli_fname, "ssl") != NULL))
        return 0;
    const long now = __sync_add_and_fetch(&count, 1);
    if (nth == 0 || now < nth || (now > nth && !all)) return 0;
    errno = error;
    return 1;
}
#define FAILS(error) fails(__builtin_return_address(0), error)
#define NEXT(name) ((__typeof__(&name))dlsym(RTLD_NEXT, #name))

void* malloc(size_t size) {
    return FAILS(ENOMEM) ? NULL : __libc_malloc(size);
}
void* calloc(size_t many, size_t size) {
    return FAILS(ENOMEM) ? NULL : __libc_calloc(many, size);
}
void* realloc(void* old, size_t size) {
    return FAILS(ENOMEM) ? NULL : __libc_realloc(old, size);
}
ssize_t read(int fd, void* bytes, size_t length) {
    return FAILS(EIO) ? -1 : NEXT(read)(fd, bytes, length);
}
ssize_t write(int fd, const void* bytes, size_t length) {
    return FAILS(ENOSPC) ? -1 : NEXT(write)(fd, bytes, length);
}
int open(const char* path, int flags, ...) {
    va_list more;
    va_start(more, flags);
    const int mode = va_arg(more, int);
    va_end(more);
    return FAILS(EMFILE) ? -1 : NEXT(open)(path, flags, mode);
}
int rename(const char* from, const char* to) {
    return FAILS(EACCES) ? -1 : NEXT(rename)(from, to);
}

FTS* fts_open(char* const* paths, int options, int (*order)(const FTSENT**, const FTSENT**)) {
    busy = 1;
    FTS* walk = NEXT(fts_open)(paths, options, order);
    busy = 0;
    return walk;
}

typedef int Main(int, char**, char**);
static Main* program;

static int armedMain(int argc, char** argv, char** environment) {
    nth = getenv("FAIL_NTH") != NULL ? atol(getenv("FAIL_NTH")) : 0;
    all = getenv("FAIL_ALL") != NULL;
    armed = 1;
    const int code = program(argc, argv, environment);
    armed = 0;
    if (getenv("FAIL_COUNT") != NULL) {
        FILE* out = fopen(getenv("FAIL_COUNT"), "w");
        fprintf(out, "%ld\n", count);
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
