/* Linkage of the public functions: C names, exported, and never throwing towards C++ callers. */
#ifndef KSPOOL_API_H
#define KSPOOL_API_H

/* Before each exported function. */
#define KSPOOL_API __attribute__((visibility("default")))

/* Behind each: no exception comes out. */
#ifdef __cplusplus
#define KSPOOL_NOEXCEPT noexcept
#else
#define KSPOOL_NOEXCEPT
#endif

#endif
