/*
 * MB: the client of a storage pool's Metabase.
 *
 * A session is created, serves operations until it is shut down, and speaks to one server.
 * Conventions that hold for every function here:
 *
 * 1. Handles. A NULL session gives CR_STATUS_NULL_HANDLE (44), another required argument that is
 *    NULL gives CR_STATUS_INVALID_PARAMETER (9); the session is checked first and neither is
 *    logged or sent.
 * 2. Statuses. Operations return 0 (CR_STATUS_OK) for success. A request that brought no answer
 *    returns the transport's status (WS_STATUS_..., platform/ws.h): the server may or may not have
 *    carried it out. An answer that reports an error returns CR_STATUS_PERMISSION_DENIED (106) when
 *    its description speaks of a permission, else CR_STATUS_REMOTE_ERROR (4); the log then holds a
 *    report of what the server said, and the process's fatal-error record the description.
 * 3. Status slot. *__cr_errno_location(), declared in platform/status.h. A function that does not
 *    say that it stores something there leaves it alone.
 * 4. Ownership. Texts given are read during the call only. Texts received are the caller's, who
 *    releases them with free().
 * 5. Threads. No lock is taken: a session is used by one thread at a time; different sessions are
 *    independent. After a fork a session belongs to the parent; the child may only shut it down.
 * 6. Time. An operation blocks until the answer is there, at most for the transport's reconnect
 *    time-out plus its response time-out (30 seconds unless set).
 */
#ifndef MB_H
#define MB_H

#include <stddef.h>
#include <stdint.h>

#include "cr_status.h"
#include "ks_option.h"
#include "kspool_api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A session. Opaque; made by one of the create calls, released by MBShutdown(). */
typedef struct MBSession MBSession;

/* ---- Sessions ---- */

/*
 * Creates a session: reads the agent configuration from `agentCfgPath` (NULL: from where it is
 * found, see ks.h), opens a transport and applies `count` options as MBOptionsSet() does.
 * `callerWord` is kept and not interpreted. `options` may be NULL when `count` is 0. Nothing is
 * sent. The transport learns server, login, password and key only through an option that says so
 * below, so a session without one cannot reach its server.
 *
 * Returns the session, or NULL with the reason in the slot. After success the slot holds 0.
 */
KSPOOL_API MBSession* MBCreateWithAgentCfg(uint32_t callerWord, const KSOption* options,
                                           uint32_t count,
                                           const char* agentCfgPath) KSPOOL_NOEXCEPT;

/* The same with the configuration file that is found. */
KSPOOL_API MBSession* MBCreate(uint32_t callerWord, const KSOption* options,
                               uint32_t count) KSPOOL_NOEXCEPT;

/*
 * The same with the options as code and value pairs, at most 32, ended by code 0. Codes are 32-bit
 * integers from 129 to 149 without 141 to 143; the values of 135, 136, 144, 145 and 147 to 149 are
 * 32-bit integers, all others 64 bits wide (integers or texts). A list that is not so gives NULL
 * with the slot left alone.
 */
KSPOOL_API MBSession* MBCreateVa(uint32_t callerWord, ...) KSPOOL_NOEXCEPT;

/* MBCreateWithAgentCfg() with those of server URL, login and password that are not NULL. */
KSPOOL_API MBSession* MBInitWithAgentCfg(const char* mbsUrl, uint32_t callerWord, const char* login,
                                         const char* password,
                                         const char* agentCfgPath) KSPOOL_NOEXCEPT;

/* The same with the configuration file that is found. */
KSPOOL_API MBSession* MBInit(const char* mbsUrl, uint32_t callerWord, const char* login,
                             const char* password) KSPOOL_NOEXCEPT;

/*
 * Changes options, all of them or none. Of the codes in ks_option.h, those for login, password,
 * application, route-table folder and the two URLs go to the session's configuration, KS_OPT_WS_7
 * and KS_OPT_WS_8 to the transport, KS_OPT_133 is recorded; the rest are ignored. An option for
 * login, password, Metabase URL or the transport also gives the transport the configuration's
 * Metabase URL, login, password and key location anew.
 *
 * Returns 0; CR_STATUS_INVALID_PARAMETER for a code above 150, a text that is missing, or NULL
 * `options` with a count; CR_STATUS_LIMIT_EXCEEDED for more than 31 records for the configuration,
 * more than 3 for the transport, or a text that does not fit; or the transport's status.
 *
 * Slot: the result, 0 included; left alone for a NULL session.
 */
KSPOOL_API uint32_t MBOptionsSet(MBSession* session, const KSOption* options,
                                 uint32_t count) KSPOOL_NOEXCEPT;

/*
 * Puts login and password into the session's configuration, both or none; neither may be NULL. The
 * transport goes on with those it has until an option of MBOptionsSet() gives it the new ones.
 *
 * Returns 0, CR_STATUS_INVALID_PARAMETER or CR_STATUS_LIMIT_EXCEEDED.
 */
KSPOOL_API uint32_t MBAuthenticate(MBSession* session, const char* login,
                                   const char* password) KSPOOL_NOEXCEPT;

/*
 * Closes the connection and releases the session with all that it holds; its passwords are wiped,
 * but not the copies that libraries below the transport made for themselves. NULL is allowed.
 */
KSPOOL_API void MBShutdown(MBSession* session) KSPOOL_NOEXCEPT;

/*
 * Lets the server know that the session lives, when it has been idle for at least `interval`
 * seconds; 0 or less: now. Returns 0, the transport's status, or the event code that the server
 * reported.
 *
 * Slot: the result when it is not 0.
 */
KSPOOL_API uint32_t MBKeepAlive(MBSession* session, int32_t interval) KSPOOL_NOEXCEPT;

/*
 * Makes requests try again for up to `seconds` when the server cannot be reached, unless a time-out
 * was set before, by the configuration or by this function. Returns that time-out unchanged when
 * there is one, else the status of setting it: 0.
 */
KSPOOL_API uint32_t MBEnableResiliency(MBSession* session, int32_t seconds) KSPOOL_NOEXCEPT;

/*
 * How PO queries are retried: each retry adds the step (seconds, 120 at first) to the response
 * time-out; the count (3 at first, none below 1) is the number of retries. They hold for all
 * sessions of the process. Changes are not synchronised: make them before threads run.
 */
KSPOOL_API void MBSetTimeOut(int32_t step) KSPOOL_NOEXCEPT;
KSPOOL_API int32_t MBGetTimeOut(void) KSPOOL_NOEXCEPT;
KSPOOL_API void MBSetRetryCount(int32_t count) KSPOOL_NOEXCEPT;
KSPOOL_API int32_t MBGetRetryCount(void) KSPOOL_NOEXCEPT;

/* The variables behind these four; programs may read and write them. */
extern KSPOOL_API int32_t ksvfs_conf_ws_timeout;
extern KSPOOL_API int32_t ksvfs_conf_ws_retrycount;

/* ---- Files, directories, time ---- */

/*
 * The name space that the server keeps. Paths are passed to the server as they are, and so is
 * `recursive`. Each is one request. Statuses are those of conventions 1 and 2.
 */

/* Creates a directory. */
KSPOOL_API uint32_t MBDirCreate(MBSession* session, const char* path) KSPOOL_NOEXCEPT;

/* Copies a file, or with `recursive` a directory with what is in it. */
KSPOOL_API uint32_t MBFileCopy(MBSession* session, const char* source, const char* destination,
                               uint32_t recursive) KSPOOL_NOEXCEPT;

/* Moves (renames) a file or a directory. */
KSPOOL_API uint32_t MBFileMove(MBSession* session, const char* source, const char* destination,
                               uint32_t recursive) KSPOOL_NOEXCEPT;

/* Deletes a file or an empty directory, or with `recursive` a directory with what is in it. */
KSPOOL_API uint32_t MBFileDelete(MBSession* session, const char* path,
                                 uint32_t recursive) KSPOOL_NOEXCEPT;

/*
 * Lists a directory, with `recursive` also what is below it. `*listing` becomes the server's text
 * (docs/wire-protocol.md), which the caller frees, or NULL when there is none; `*length`, unless
 * `length` is NULL, its size with the NUL, or 0. On failure after the arguments were checked both
 * are NULL and 0.
 */
KSPOOL_API uint32_t MBDirList(MBSession* session, const char* path, char** listing, size_t* length,
                              uint32_t recursive) KSPOOL_NOEXCEPT;

/*
 * Stores the server's time, in seconds since 1970, low 32 bits; 0 when the answer has no number in
 * it, and on failure after the arguments were checked.
 */
KSPOOL_API uint32_t MBGetTime(MBSession* session, uint32_t* serverTime) KSPOOL_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
