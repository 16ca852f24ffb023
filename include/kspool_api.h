/* Linkage of the public functions: exported C names that never throw to C++ callers. */
#ifndef KSPOOL_API_H
#define KSPOOL_API_H

/* Before each exported function. */
#define KSPOOL_API __attribute__((visibility("default")))

/* After each exported function: it throws no exception. */
#ifdef __cplusplus
#define KSPOOL_NOEXCEPT noexcept
#else
#define KSPOOL_NOEXCEPT
#endif

#endif
