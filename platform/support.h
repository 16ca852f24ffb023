/*
 * The support library: messages, small file and text helpers, process facts.
 *
 * This header is a contract without code. The library calls the first part; the second is for
 * programs that receive the messages themselves.
 *
 * Messages are printf-style, of any length, and may be written from any thread. No call here
 * touches the status slot; the message calls leave errno alone too.
 *
 * Arguments that mean the same everywhere:
 *
 *   status        status that the message reports
 *   level         QLX_LEVEL_...
 *   format        the message, as printf() has it
 *   function      name of the function that failed; or receives it
 *   functionSize  bytes of `function`
 *   id            number of the fatal error
 *   message       receives the text of the fatal error
 *   messageSize   bytes of `message`
 *   destination   receives a text
 *   source        the text
 *   size          bytes of the destination
 *   text          a text
 *   set           characters to look for
 *   path          path of the file
 *   mode          as access() has it
 *   type          type of the file
 *   fd            descriptor of the file
 *   value         value in the header; its meaning depends on the type
 *   header        receives what was read
 *   unused        0
 *   sink          told of each message; NULL: stderr
 *   arg           handed to the sink as it is
 */
#ifndef PLATFORM_SUPPORT_H
#define PLATFORM_SUPPORT_H

#include <stddef.h>
#include <stdint.h>

#include "kspool_api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Arguments are checked against the format. */
#define QLX_PRINTF(text, first) __attribute__((format(printf, text, first)))

/* How much a message matters. */
enum QLXLevel {
    QLX_LEVEL_TRACE = 0,
    QLX_LEVEL_NOTE = 16,
    QLX_LEVEL_INFO = 24,
    QLX_LEVEL_NOTICE = 32,
    QLX_LEVEL_WARNING = 64,
    QLX_LEVEL_ERROR = 128
};

/* ---- What the library calls ---- */

/*
 * The trace switch of the process, never NULL: tracing is on while it is not 0. Once threads run,
 * store it atomically, since the library reads it atomically.
 */
KSPOOL_API int* __qlxlog_trace_location(void) KSPOOL_NOEXCEPT;

/* Writes one trace message. The caller checks the switch; this call does not. */
KSPOOL_API void __TraceA(const char* format, ...) KSPOOL_NOEXCEPT QLX_PRINTF(1, 2);

/* Log one message about a status (or event code, or 0xFFFFFFFF where none applies). */
KSPOOL_API void ErrorA(uint32_t status, const char* format, ...) KSPOOL_NOEXCEPT QLX_PRINTF(2, 3);
KSPOOL_API void WarningA(uint32_t status, const char* format, ...) KSPOOL_NOEXCEPT QLX_PRINTF(2, 3);
KSPOOL_API void NoticeA(uint32_t status, const char* format, ...) KSPOOL_NOEXCEPT QLX_PRINTF(2, 3);
KSPOOL_API void InfoA(uint32_t status, const char* format, ...) KSPOOL_NOEXCEPT QLX_PRINTF(2, 3);

/* The same at a level of the caller's choice. */
KSPOOL_API void qlxLogA(uint32_t status, uint32_t level, const char* format, ...) KSPOOL_NOEXCEPT
    QLX_PRINTF(3, 4);

/*
 * Records a fatal error for the process, in place of the one recorded before. The record may cut
 * long texts.
 */
KSPOOL_API void qlxSetFatalError(const char* function, uint32_t id, const char* format,
                                 ...) KSPOOL_NOEXCEPT QLX_PRINTF(3, 4);

/*
 * Copies at most size - 1 characters and a NUL; does nothing for size 0. Neither text may be NULL
 * unless the size is 0. Returns `destination`.
 */
KSPOOL_API char* qlxstrcpy(char* destination, const char* source, size_t size) KSPOOL_NOEXCEPT;

/* The first character of `text` that is in `set`, or NULL. */
KSPOOL_API char* qlxstrpbrk(const char* text, const char* set) KSPOOL_NOEXCEPT;

/*
 * 0 when the file may be accessed in this mode (4: read), otherwise -1 with errno set. A folder
 * cannot be read as a file.
 */
KSPOOL_API int qlx_access(const char* path, int mode) KSPOOL_NOEXCEPT;

/* Removes a file: 0, or -1 with errno set. */
KSPOOL_API int qlx_unlink(const char* path) KSPOOL_NOEXCEPT;

/* What qlxMagicRead() fills. */
typedef struct QLXMagic {
    uint64_t value;    /* its meaning depends on the type */
    uint32_t type;     /* type of the file */
    uint32_t reserved; /* 0 */
} QLXMagic;

enum { QLX_MAGIC_LENGTH = 24 }; /* bytes of a magic header in a file, for any type and value */

/*
 * Writes a magic header at the descriptor's position. On the disk, little-endian: 8 bytes of
 * signature, type (32 bits), 0 (32 bits), value (64 bits). 0, or -1 with errno set.
 */
KSPOOL_API int qlxMagicWrite(uint32_t type, int fd, uint64_t value) KSPOOL_NOEXCEPT;

/*
 * Reads a magic header from the descriptor's position and leaves the position just past it.
 * Returns its type, which is never 0; returns 0 with `header` cleared when the file ends within the
 * header (the position is then undefined) or the header is invalid.
 */
KSPOOL_API uint32_t qlxMagicRead(int fd, QLXMagic* header) KSPOOL_NOEXCEPT;

/* The name of the running process, never NULL or empty. The argument is 0. */
KSPOOL_API const char* OSGetProcName(int unused) KSPOOL_NOEXCEPT;

/* The process's resident memory in bytes; 0 when it cannot be determined. */
KSPOOL_API uint64_t OSGetRSS(void) KSPOOL_NOEXCEPT;

/* ---- For programs ---- */

/* Receives each message: level (QLX_LEVEL_...), status (0 for traces), text without line end. */
typedef void (*QLXSink)(uint32_t level, uint32_t status, const char* text, void* arg);

/*
 * Sends all messages to `sink` (NULL: back to stderr). The sink is called for one message at a
 * time, on the thread that writes the message. Texts are not escaped: control characters and line
 * ends may come from a server. On stderr control characters are escaped (\x1b), and each further
 * line of a message begins with the process, the level and "| ". The sink must not throw; a message
 * that the sink writes goes to stderr. When qlxSetSink() returns, no other thread is inside the old
 * sink. fork() waits while another thread is in the sink, so that the child can write messages too.
 */
KSPOOL_API void qlxSetSink(QLXSink sink, void* arg) KSPOOL_NOEXCEPT;

/*
 * Copies the fatal-error record: returns its identifier, 0 when nothing was recorded. Texts are cut
 * to their sizes and terminated; NULL with size 0 is allowed.
 */
KSPOOL_API uint32_t qlxGetFatalError(char* function, size_t functionSize, char* message,
                                     size_t messageSize) KSPOOL_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
