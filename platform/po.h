/*
 * The PO library. A PO is one record of the pool's Metabase.
 *
 * This header is a contract without code.
 *
 * Arguments that mean the same everywhere:
 *
 *   po      the caller's record
 *   stype   serialization type
 *   line    a PO in its serialized form
 *   index   number of the field, from 0
 *   length  receives the number of its characters
 */
#ifndef PLATFORM_PO_H
#define PLATFORM_PO_H

#include <stddef.h>
#include <stdint.h>

#include "kspool_api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A PO. Zeroed before its first use. It may be copied as bytes; only one copy must be released. */
typedef struct PO {
    uint32_t stype; /* serialization type */
    char* text;     /* the PO's contents, allocated, or NULL */
} PO;

/* Releases a PO's contents and empties it; the serialization type stays. */
KSPOOL_API void POReset(PO* po) KSPOOL_NOEXCEPT;

/* Sets the serialization type of the next conversion: 1 for a legacy server. */
KSPOOL_API void POSetStype(PO* po, uint32_t stype) KSPOOL_NOEXCEPT;

/*
 * Makes a PO from its serialized form, one line of fields with | between them. The line is read
 * during the call only, and may be changed. Returns 0 for success. Any other result leaves the PO
 * empty and the reason in the slot: CR_STATUS_BAD_HANDLE for an invalid line, CR_STATUS_NO_MEMORY.
 */
KSPOOL_API int POSetFromNonConstString(PO* po, char* line) KSPOOL_NOEXCEPT;

/* ---- For programs ---- */

/* The text of field `index`, `*length` characters that belong to the PO; NULL beyond the last. */
KSPOOL_API const char* POGetField(const PO* po, uint32_t index, size_t* length) KSPOOL_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
