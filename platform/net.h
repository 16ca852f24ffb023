/*
 * The network functions. This header is a contract without code.
 *
 * Arguments that mean the same everywhere:
 *
 *   url     read during the call only
 *   buffer  receives a text
 *   size    bytes of the buffer
 *   unused  0
 *   text    decoded in place
 */
#ifndef PLATFORM_NET_H
#define PLATFORM_NET_H

#include <stddef.h>

#include "kspool_api.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Writes the host and port part of a URL into `buffer` of `size` bytes, cut to what fits and
 * NUL-terminated: the part before the first '/', '?' or '#', without user info. A leading
 * "scheme://" is skipped. The last argument is 0. Returns the length written.
 */
KSPOOL_API int NetExtractHostAndPort(const char* url, char* buffer, size_t size,
                                     int unused) KSPOOL_NOEXCEPT;

/*
 * Decodes a text in place: %XX becomes the byte. A + is not decoded, and a % that two hexadecimal
 * digits do not follow is copied. Returns `text`.
 */
KSPOOL_API char* URLDecode(char* text) KSPOOL_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
