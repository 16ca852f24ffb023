/*
 * The configuration support library: reads ini files.
 *
 * This header is a contract without code.
 *
 * A section or an entry is named by a pointer into one of two tables of NUL-terminated names. A
 * file is
 *
 *     [section]
 *     entry = value
 *
 * with comments on lines of their own that start with # or ;. Names are compared without regard to
 * ASCII case, values are trimmed and may stand in double quotes, lines may end with CR LF and be up
 * to 64 KiB long. Only a comment may follow a header on its line. A section may be given more than
 * once; the first of equal entries counts. An invalid header also ends the section before it:
 * otherwise the entries below would count for the wrong section. An entry that is missing, empty,
 * or in a file that cannot be read has the default. Notices report a file that cannot be read, is
 * not a regular file or is larger than 16 MiB, and invalid lines; they are not repeated until
 * another file is read or the contents change. A truncated value is reported each time. No call
 * touches the slot.
 *
 * Arguments that mean the same everywhere:
 *
 *   section       the section's name, from its table
 *   entry         the entry's name, from its table
 *   destination   receives a text
 *   maxCharacters capacity of the destination in characters, without the NUL
 *   defaultValue  value of a missing entry; NULL stands for the empty text
 *   value         receives a number; or the number that was read
 *   file          path of the file
 *   message       text of the report
 *   format        text of the report, as printf() has it
 *   unused        0
 */
#ifndef PLATFORM_INI_H
#define PLATFORM_INI_H

#include <stdint.h>

#include "kspool_api.h"

#ifdef __cplusplus
extern "C" {
#endif

extern KSPOOL_API const char _qlx_config_section_string_table_[]; /* the sections */
extern KSPOOL_API const char _qlx_config_entry_string_table_[];   /* the entries */

/*
 * Offsets in the two tables at which the names that the library reads begin. The offsets are part
 * of the binary interface and never change, even if the names do. docs/agent-config.md describes
 * the directives.
 */
enum InifileSection {
    INI_SECTION_FINGERPRINTS = 9,
    INI_SECTION_POOL = 139,
    INI_SECTION_METABASE = 144,
    INI_SECTION_PATHS = 165,
    INI_SECTION_PRODUCT = 171,
    INI_SECTION_SPA = 206
};

/* The same for the entries. */
enum InifileEntry {
    INI_ENTRY_AGENT_ID = 7,
    INI_ENTRY_LABEL = 763,
    INI_ENTRY_ROUTE_TABLES = 905,
    INI_ENTRY_VENDOR = 977,
    INI_ENTRY_POOL_ID = 1080,
    INI_ENTRY_URL = 1322,
    INI_ENTRY_TYPE = 1487,
    INI_ENTRY_SSL_KEY = 1503,
    INI_ENTRY_RECONNECT_TIMEOUT = 3072
};

/*
 * Copy a text, or the default (NULL: the empty text), into `destination`, which has room for
 * `maxCharacters` and a NUL. Return the number of characters copied from the file, 0 when the
 * default was used. InifileGetPathA() reads a path, without expanding it.
 */
KSPOOL_API int InifileGetValueA(const char* section, const char* entry, char* destination,
                                int maxCharacters, const char* defaultValue,
                                const char* file) KSPOOL_NOEXCEPT;
KSPOOL_API int InifileGetPathA(const char* section, const char* entry, char* destination,
                               int maxCharacters, const char* defaultValue,
                               const char* file) KSPOOL_NOEXCEPT;

/*
 * Store a decimal integer, or the default. Text behind the digits is ignored; a value without
 * digits counts as missing; numbers out of range saturate. Return 1 when the file gave the number,
 * else 0.
 */
KSPOOL_API int InifileGetLongLongA(const char* section, const char* entry, int64_t* value,
                                   int64_t defaultValue, const char* file) KSPOOL_NOEXCEPT;
KSPOOL_API int InifileGetIntegerA(const char* section, const char* entry, int32_t* value,
                                  int32_t defaultValue, const char* file) KSPOOL_NOEXCEPT;

/* Report a directive: a notice, a notice with the value read, an error with the value read. */
KSPOOL_API void InifileNoticeA(const char* file, const char* section, const char* entry, int unused,
                               const char* message) KSPOOL_NOEXCEPT;
KSPOOL_API void InifileValueNoticeA(const char* file, const char* section, const char* entry,
                                    int64_t value, const char* message) KSPOOL_NOEXCEPT;
KSPOOL_API void InifileValueErrorA(const char* file, const char* section, const char* entry,
                                   int64_t value, const char* format, ...) KSPOOL_NOEXCEPT
    __attribute__((format(printf, 5, 6)));

#ifdef __cplusplus
}
#endif

#endif
