/*
 * The status library: statuses and a few types that the pool's components share.
 *
 * This header is a contract without code. An implementation provides every function here. The one
 * in platform/standin/ serves development, tests and installations without a platform library of
 * their own.
 *
 * Arguments that mean the same everywhere:
 *
 *   status       any status
 *   function     name of the function that failed
 *   sourceFile   file that it is in
 *   line         line in that file
 *   kind         kind of configuration: "Agent"
 *   buffer       receives a text
 *   size         bytes of the buffer
 *   type         a type
 *   fingerprint  digest bytes
 */
#ifndef PLATFORM_STATUS_H
#define PLATFORM_STATUS_H

#include <stddef.h>
#include <stdint.h>

#include "kspool_api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* First status of each range that is not the library's own. */
enum CRStatusRange {
    CR_STATUS_SYSTEM_BASE = 1000,   /* + errno of a failed system call */
    CR_STATUS_TRANSPORT_BASE = 2000 /* to 2099: the web-service transport */
};

/* Fingerprint types: 1 to 3. */
enum CRFPType {
    CR_FP_MD5 = 1,     /* 16 bytes */
    CR_FP_SHA1_16 = 2, /* SHA-1 cut to 16 bytes */
    CR_FP_SHA256 = 3   /* 32 bytes */
};

/* DO types: 0 to 3. */
enum CRDOType { CR_DO_LAST = 3 };

/* The calling thread's status slot: never NULL, valid as long as the thread, initially 0. */
KSPOOL_API uint32_t* __cr_errno_location(void) KSPOOL_NOEXCEPT;

/* A constant text for any status, never NULL or empty. Leaves errno and the slot alone. */
KSPOOL_API const char* CRStatusToStringA(uint32_t status) KSPOOL_NOEXCEPT;

/*
 * The status for the system call that has just failed, from errno (0 counts as EIO). Function,
 * source file and line are for a trace. Leaves errno and the slot alone: the caller stores the
 * status.
 */
KSPOOL_API uint32_t _crMapError(const char* function, const char* sourceFile,
                                int line) KSPOOL_NOEXCEPT;

/*
 * Finds the configuration file of a kind ("Agent"). Writes its path, NUL-terminated, into `buffer`
 * of `size` bytes and returns `buffer`. On failure returns NULL with the reason in the status slot:
 * 2 when there is no file, 10 when the path does not fit. The file need not be readable. No
 * argument may be NULL; errno is undefined afterwards.
 */
KSPOOL_API char* CRConfigLocate(const char* kind, char* buffer, size_t size) KSPOOL_NOEXCEPT;

/* Not 0 for a fingerprint type that the pool knows. 255 is invalid. */
KSPOOL_API int CRFPTypeIsValid(uint32_t type) KSPOOL_NOEXCEPT;

/* Not 0 for a DO type that the pool knows. 255 is invalid. */
KSPOOL_API int CRDOTypeIsValid(uint8_t type) KSPOOL_NOEXCEPT;

/*
 * Writes a digest (32 bytes for type 3, 16 for any other) as lower-case hexadecimal into `buffer`
 * of `size` bytes, cut to what fits and NUL-terminated. Returns `buffer`, or an empty constant text
 * when `size` is 0 or an argument is NULL.
 */
KSPOOL_API const char* CRFPDigestToString_r(const void* fingerprint, uint32_t type, char* buffer,
                                            size_t size) KSPOOL_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
