/*
 * The PO library. A PO is one record of the pool's Metabase. This header is a contract without
 * code.
 */
#ifndef PLATFORM_PO_H
#define PLATFORM_PO_H

#include <stdint.h>

#include "kspool_api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A PO. Zeroed before its first use. It may be copied as bytes; one of the copies is released. */
typedef struct PO {
    uint32_t stype; /* serialization type */
    char* text;     /* what the PO holds, allocated, or NULL */
} PO;

/* Releases what a PO holds and empties it; the serialization type stays. */
KSPOOL_API void POReset(PO* po) KSPOOL_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
