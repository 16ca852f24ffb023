/*
 * MB: the client of a storage pool's Metabase.
 *
 * A session is created, serves operations until it is shut down, and speaks to one server.
 * Conventions that hold for every function here:
 *
 * 1. Handles. A NULL session gives CR_STATUS_NULL_HANDLE (44), another required argument that is
 *    NULL gives CR_STATUS_INVALID_PARAMETER (9); the session is checked first and neither is
 *    logged or sent.
 * 2. Statuses. Operations return 0 (CR_STATUS_OK) for success. A request without a valid answer
 *    returns the transport's status (WS_STATUS_..., platform/ws.h): the server has carried the
 *    request out once or not at all, except where platform/ws.h says that nothing was sent. An
 *    answer that reports an error returns CR_STATUS_PERMISSION_DENIED (106) when its description
 *    holds the word "permission", else CR_STATUS_REMOTE_ERROR (4); the log then holds a report of
 *    the error, and the process's fatal-error record its description.
 * 3. Status slot. *__cr_errno_location(), declared in platform/status.h. A function leaves the slot
 *    alone unless its comment says otherwise.
 * 4. Ownership. Texts given are read during the call only. Texts received are the caller's, who
 *    releases them with free(); lines of a cursor are the cursor's and valid until MBPOFindClose().
 * 5. Threads. No lock is taken: a session is used by one thread at a time; different sessions are
 *    independent. Only MBAbort() may run during another call. After a fork a session belongs to
 *    the parent; the child may only shut it down.
 * 6. Time. An operation blocks until the answer is complete. A request ends when no byte is
 *    transferred for one response time-out (30 seconds unless set). Its deadline is the response
 *    plus the reconnect time-out after its start, extended by a second for each 64 KiB transferred.
 *    MBAbort() ends the request at once.
 * 7. Messages. The library reports failures on standard error. qlxSetSink()
 *    (platform/support.h) sends the messages elsewhere, or nowhere:
 *    docs/howto/redirect-messages.md.
 *
 * Arguments that mean the same everywhere:
 *
 *   session        a session of one of the create calls
 *   callerWord     kept with the session and not interpreted
 *   options        option records, read during the call only
 *   count          number of option records; or NULL, or receives the number of POs found
 *   agentCfgPath   path of the agent configuration; NULL: the default one, see ks.h
 *   mbsUrl         URL of the Metabase server, or NULL
 *   login          login on that server, or NULL
 *   password       password on that server, or NULL
 *   path           path on the server
 *   source         path on the server of the existing file or directory
 *   destination    path on the server of the new file or directory
 *   recursive      not 0: directories with their contents
 *   listing        receives the list, the caller's to free()
 *   length         NULL, or receives the bytes of the text, with its NUL
 *   dataselection  number of the data selection
 *   dsid           number of the data selection
 *   pos            text of POs
 *   filter         the POs to be found
 *   text           receives the answer's text, the caller's to free()
 *   po             the caller's record, zeroed before its first use, which receives a PO
 *   line           receives the text of a PO, which the cursor owns
 *   cursor         a cursor of one of the FindFirst calls
 *   client         client of the image
 *   policy         policy of the image
 *   imagename      name of the image
 *   parentid       number of the image's parent
 *   datetime       time of the image
 *   dofp           sent as it is
 *   dcid           sent as it is
 *   flags          sent as they are
 *   wormflags      sent as they are
 *   retention      sent as it is
 *   answer         receives the list, the caller's to free()
 *   event          the caller's record, its `size` set
 *   statistics     the caller's record, its `size` set
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
 * Creates a session: reads the agent configuration from `agentCfgPath` (NULL: from the default
 * place, see ks.h), opens a transport and applies `count` options as MBOptionsSet() does.
 * `callerWord` is kept and not interpreted. `options` may be NULL when `count` is 0. Nothing is
 * sent. The transport gets server, login, password and key only with an option that MBOptionsSet()
 * lists as passing them on, so a session without such an option cannot reach its server.
 *
 * Returns the session, or NULL with the reason in the slot. After success the slot holds 0.
 */
KSPOOL_API MBSession* MBCreateWithAgentCfg(uint32_t callerWord, const KSOption* options,
                                           uint32_t count,
                                           const char* agentCfgPath) KSPOOL_NOEXCEPT;

/* The same with the default configuration file. */
KSPOOL_API MBSession* MBCreate(uint32_t callerWord, const KSOption* options,
                               uint32_t count) KSPOOL_NOEXCEPT;

/*
 * The same with the options as code and value pairs, at most 32, ended by code 0. Codes are 32-bit
 * integers from 129 to 149 without 141 to 143; the values of 135, 136, 144, 145 and 147 to 149 are
 * 32-bit integers, all others 64 bits wide (integers or texts). An invalid list gives NULL with the
 * slot left alone.
 */
KSPOOL_API MBSession* MBCreateVa(uint32_t callerWord, ...) KSPOOL_NOEXCEPT;

/* MBCreateWithAgentCfg() with server URL, login and password as options, unless NULL. */
KSPOOL_API MBSession* MBInitWithAgentCfg(const char* mbsUrl, uint32_t callerWord, const char* login,
                                         const char* password,
                                         const char* agentCfgPath) KSPOOL_NOEXCEPT;

/* The same with the default configuration file. */
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
 * transport keeps the old ones until an option of MBOptionsSet() passes it the new ones.
 *
 * Returns 0, CR_STATUS_INVALID_PARAMETER or CR_STATUS_LIMIT_EXCEEDED.
 */
KSPOOL_API uint32_t MBAuthenticate(MBSession* session, const char* login,
                                   const char* password) KSPOOL_NOEXCEPT;

/*
 * Closes the connection and releases the session. Its copies of the password are wiped; those that
 * libraries below the transport made are not. NULL is allowed.
 */
KSPOOL_API void MBShutdown(MBSession* session) KSPOOL_NOEXCEPT;

/*
 * Sends a keep-alive when the session has been idle for at least `interval` seconds; 0 or less:
 * now. The system's clock counts: after it was set back, nothing is sent until it has caught up.
 * Returns 0, the transport's status, or the event code that the server reported.
 *
 * Slot: the result, unless it is 0 or CR_STATUS_NULL_HANDLE.
 *
 *   interval  seconds of idleness after which a keep-alive is sent
 */
KSPOOL_API uint32_t MBKeepAlive(MBSession* session, int32_t interval) KSPOOL_NOEXCEPT;

/*
 * Sets the reconnect time-out: requests are then retried for up to `seconds` after the first
 * failure, while the server cannot be reached or asks to retry later (429, 502, 503, 504). A
 * time-out that the configuration or an earlier call has set stays, and is returned; otherwise the
 * call returns the status of setting the time-out: 0.
 *
 *   seconds  how long to retry
 */
KSPOOL_API uint32_t MBEnableResiliency(MBSession* session, int32_t seconds) KSPOOL_NOEXCEPT;

/*
 * Set and get the response time-out of the session's requests in seconds; 0 or less: none, and then
 * only connecting is limited in time. A new time-out applies to later requests. The retries of a
 * query extend the time-out, which MBGetResponseTimeOut() shows. Return 0,
 * CR_STATUS_INVALID_PARAMETER for a NULL output, or the transport's status.
 *
 *   seconds  time-out in seconds, or receives it
 */
KSPOOL_API uint32_t MBSetResponseTimeOut(MBSession* session, int32_t seconds) KSPOOL_NOEXCEPT;
KSPOOL_API uint32_t MBGetResponseTimeOut(const MBSession* session,
                                         int32_t* seconds) KSPOOL_NOEXCEPT;

/* ---- The current request, and requests so far ---- */

/*
 * MBAbort(), MBLastEvent() and MBGetStatistics() need a platform that offers them (platform/ws.h).
 * Without one they return the status of the system error ENOSYS, 1038, and do nothing.
 */

/*
 * Ends the current request within 100 ms with WS_STATUS_ABORTED (2011): the server has carried the
 * request out once or not at all. An aborted query is not retried. The session remains usable: the
 * next request opens a new connection. Between requests the call has no effect, so a caller that
 * must be sure repeats the call until the operation has returned.
 *
 * Any thread and any signal handler may call MBAbort(), but not during MBShutdown(). errno and the
 * slot are left alone. Returns 0, or WS_STATUS_FORKED in a child.
 */
KSPOOL_API uint32_t MBAbort(MBSession* session) KSPOOL_NOEXCEPT;

/*
 * What is known of a session's last request, and of the event that the server reported in it. The
 * texts are NULL where nothing is known, belong to the session and are valid until its next
 * request.
 */
typedef struct MBEvent {
    uint64_t size;                 /* sizeof(MBEvent): set by the caller first */
    uint32_t eventCode;            /* 0 without an event */
    uint32_t httpStatus;           /* of the last answer; 0 without one */
    uint32_t attempts;             /* made; 0: the request was refused before the first */
    uint32_t reserved;             /* 0 */
    const char* requestId;         /* the request's id in the server's log */
    const char* severity;          /* severity of the event */
    const char* serverAddress;     /* address of the reporting server */
    const char* sourceApplication; /* component that reported */
    const char* description;       /* description for people */
} MBEvent;

/*
 * Describes the last request; also useful after operations that return only the event's code.
 * Returns 0, or CR_STATUS_INVALID_PARAMETER for a NULL record or one that is too small. A program
 * built with newer headers may pass a larger record: `size` becomes the number of bytes filled.
 */
KSPOOL_API uint32_t MBLastEvent(const MBSession* session, MBEvent* event) KSPOOL_NOEXCEPT;

enum { MB_LATENCIES = 32 }; /* classes of requests by their time */

/* What a session has done since it was created. Requests that were refused before they were sent do
 * not count. */
typedef struct MBStatistics {
    uint64_t size;                    /* sizeof(MBStatistics): set by the caller first */
    uint64_t requests;                /* including those that could not be sent */
    uint64_t attempts;                /* at least one per request */
    uint64_t connections;             /* opened */
    uint64_t bytesSent;               /* heads and bodies, without TLS */
    uint64_t bytesReceived;           /* the same */
    uint64_t microseconds;            /* in requests, pauses included */
    uint64_t latencies[MB_LATENCIES]; /* histogram: class k counts requests that took at least
                                         2^(k-1) and less than 2^k microseconds, the last class
                                         also all longer ones */
} MBStatistics;

/* Gets the session's statistics; statuses and `size` as with MBLastEvent(). */
KSPOOL_API uint32_t MBGetStatistics(const MBSession* session,
                                    MBStatistics* statistics) KSPOOL_NOEXCEPT;

/*
 * How PO queries are retried: each retry adds the step (120 seconds unless set) to the response
 * time-out; the count (3 unless set; below 1: no retry) is the number of retries. Both apply to all
 * sessions of the process. Access is not synchronised: change them before threads are started.
 *
 *   step   seconds that each retry adds to the response time-out
 *   count  number of retries
 */
KSPOOL_API void MBSetTimeOut(int32_t step) KSPOOL_NOEXCEPT;
KSPOOL_API int32_t MBGetTimeOut(void) KSPOOL_NOEXCEPT;
KSPOOL_API void MBSetRetryCount(int32_t count) KSPOOL_NOEXCEPT;
KSPOOL_API int32_t MBGetRetryCount(void) KSPOOL_NOEXCEPT;

/* The variables behind these four; programs may read and write them. */
extern KSPOOL_API int32_t ksvfs_conf_ws_timeout;    /* the step of MBSetTimeOut(), in seconds */
extern KSPOOL_API int32_t ksvfs_conf_ws_retrycount; /* the count of MBSetRetryCount() */

/* ---- Files, directories, time ---- */

/*
 * The server's name space. Paths and `recursive` are passed to the server as they are. Each
 * function is one request. Statuses are those of conventions 1 and 2.
 */

/* Creates a directory. */
KSPOOL_API uint32_t MBDirCreate(MBSession* session, const char* path) KSPOOL_NOEXCEPT;

/* Copies a file, or with `recursive` a directory with its contents. */
KSPOOL_API uint32_t MBFileCopy(MBSession* session, const char* source, const char* destination,
                               uint32_t recursive) KSPOOL_NOEXCEPT;

/* Moves (renames) a file or a directory. */
KSPOOL_API uint32_t MBFileMove(MBSession* session, const char* source, const char* destination,
                               uint32_t recursive) KSPOOL_NOEXCEPT;

/* Deletes a file or an empty directory, or with `recursive` a directory with its contents. */
KSPOOL_API uint32_t MBFileDelete(MBSession* session, const char* path,
                                 uint32_t recursive) KSPOOL_NOEXCEPT;

/*
 * Lists a directory, with `recursive` the whole tree below it. `*listing` becomes the server's text
 * (docs/wire-protocol.md), which the caller frees, or NULL when there is none; `*length`, unless
 * `length` is NULL, its size with the NUL, or 0. On failure after the arguments were checked both
 * are NULL and 0.
 */
KSPOOL_API uint32_t MBDirList(MBSession* session, const char* path, char** listing, size_t* length,
                              uint32_t recursive) KSPOOL_NOEXCEPT;

/*
 * Gets the low 32 bits of the server's time in seconds since 1970; 0 when the answer does not begin
 * with a number, and on failure after the arguments were checked.
 *
 *   serverTime  receives the time
 */
KSPOOL_API uint32_t MBGetTime(MBSession* session, uint32_t* serverTime) KSPOOL_NOEXCEPT;

/* ---- Lists of POs ---- */

/*
 * Send a text of POs to the server for one data selection. The text is sent as it is; a NULL or
 * empty one gives CR_STATUS_INVALID_PARAMETER. An answer that is not empty and does not begin with
 * the server's field names gives CR_STATUS_BAD_RESPONSE; MBPOExpire() does not check this.
 * Otherwise the statuses are those of conventions 1 and 2.
 */
KSPOOL_API uint32_t MBPOImport(MBSession* session, uint32_t dataselection,
                               const char* pos) KSPOOL_NOEXCEPT;
KSPOOL_API uint32_t MBPOAddList(MBSession* session, uint32_t dataselection,
                                const char* pos) KSPOOL_NOEXCEPT;
KSPOOL_API uint32_t MBPOZELTAddList(MBSession* session, uint32_t dataselection,
                                    const char* pos) KSPOOL_NOEXCEPT;
KSPOOL_API uint32_t MBPOExpire(MBSession* session, uint32_t dataselection,
                               const char* pos) KSPOOL_NOEXCEPT;

/* ---- Queries ---- */

struct PO; /* a record of the PO library, platform/po.h */

/* A query under way. Opaque; made by a FindFirst call, released by MBPOFindClose(). */
typedef struct MBPOCursor MBPOCursor;

/*
 * The filter of a query: criterion k for field k of a PO. Texts are the caller's, must not be NULL
 * and are sent as they are; * and ? match as in a shell. The defaults, which MBPOFilterInit() sets,
 * match everything: "*" for texts, '*' for the character, -1 for numbers, and 0, 0, "" for
 * criteria 1 to 3. Criterion 0 is not sent.
 */
typedef struct MBPOFilter {
    uint64_t size;           /* sizeof(MBPOFilter), 440: set by the caller first */
    const char* criterion0;  /* not sent */
    const char* criterion6;  /* for field 6 */
    const char* criterion7;  /* for field 7 */
    const char* criterion8;  /* for field 8 */
    const char* criterion9;  /* for field 9 */
    const char* criterion10; /* for field 10 */
    const char* criterion11; /* for field 11 */
    int32_t criterion4;      /* for field 4 */
    signed char criterion12; /* for field 12: a character */
    int64_t criterion16;     /* for field 16 */
    int64_t criterion17;     /* for field 17 */
    int64_t criterion18;     /* for field 18 */
    int64_t criterion19;     /* for field 19 */
    int64_t criterion20;     /* for field 20 */
    int64_t criterion21;     /* for field 21 */
    int64_t criterion22;     /* for field 22 */
    int64_t criterion23;     /* for field 23 */
    const char* criterion13; /* for field 13 */
    const char* criterion14; /* for field 14 */
    int32_t criterion5;      /* for field 5 */
    int32_t criterion24;     /* for field 24 */
    int32_t criterion25;     /* for field 25 */
    char criterion15[132];   /* for field 15 */
    char criterion3[128];    /* for field 3 */
    int32_t criterion1;      /* for field 1 */
    int32_t criterion2;      /* for field 2 */
    const char* criterion26; /* for field 26 */
} MBPOFilter;

/*
 * Fills a filter, whose `size` the caller has set, with the defaults. Returns 0, or
 * CR_STATUS_INVALID_PARAMETER for NULL or another size, with the filter left untouched. The slot is
 * left alone.
 */
KSPOOL_API uint32_t MBPOFilterInit(MBPOFilter* filter) KSPOOL_NOEXCEPT;

/*
 * Three ways to read the result of a query. A failed query that was not aborted is retried as
 * MBSetRetryCount() and MBSetTimeOut() say, each time with a longer response time-out, which the
 * session keeps, even if it had none; a query can therefore take minutes. A NULL output is reported
 * before a NULL session. Common statuses, also in the slot:
 * CR_STATUS_NULL_HANDLE; CR_STATUS_INVALID_PARAMETER for a filter that is NULL or of another size;
 * the transport's status for the last attempt; CR_STATUS_REMOTE_ERROR when the server reported an
 * error and no retry is allowed; CR_STATUS_BAD_HANDLE for a malformed answer, or when the server
 * reported an error to a retry; the status of the system error when memory is short. `count`,
 * unless NULL, becomes the number of POs that the server announces.
 */

/*
 * Returns the whole answer as one text: names, types, count and one PO per line. `*text` is the
 * caller's to free; `*length`, unless NULL, is its size with the NUL. CR_STATUS_NOT_FOUND, which is
 * not stored in the slot, when no PO matches; CR_STATUS_NULL_OUTPUT for a NULL `text`. On failure
 * the outputs are NULL and 0.
 */
KSPOOL_API uint32_t MBPOFind(MBSession* session, uint32_t dataselection, const MBPOFilter* filter,
                             char** text, size_t* length, uint32_t* count) KSPOOL_NOEXCEPT;

/*
 * Returns a cursor, with the first PO in `po` (zeroed before its first use, the caller's to
 * release; a record that held a PO of a legacy server must not be used for another server), or NULL
 * with the status in the slot: CR_STATUS_NOT_FOUND when no PO matches, CR_STATUS_INVALID_PARAMETER
 * for a NULL `po`, the PO library's status when the first line is invalid.
 */
KSPOOL_API MBPOCursor* MBPOFindFirst(MBSession* session, uint32_t dataselection,
                                     const MBPOFilter* filter, struct PO* po,
                                     uint32_t* count) KSPOOL_NOEXCEPT;

/*
 * Gets the next PO. Returns 0; CR_STATUS_NOT_FOUND at the end; CR_STATUS_INVALID_PARAMETER for a
 * NULL argument; for an invalid line the PO library's status, which is in the slot too. The next
 * call then continues with the line after the invalid one.
 */
KSPOOL_API uint32_t MBPOFindNext(MBPOCursor* cursor, struct PO* po) KSPOOL_NOEXCEPT;

/* The same with lines of text. */
KSPOOL_API MBPOCursor* MBPOStringFindFirst(MBSession* session, uint32_t dataselection,
                                           const MBPOFilter* filter, char** line,
                                           uint32_t* count) KSPOOL_NOEXCEPT;
KSPOOL_API uint32_t MBPOStringFindNext(MBPOCursor* cursor, char** line) KSPOOL_NOEXCEPT;

/* Releases a cursor and its lines. NULL is allowed. */
KSPOOL_API void MBPOFindClose(MBPOCursor* cursor) KSPOOL_NOEXCEPT;

/* ---- Backup images ---- */

/*
 * Records of backup images on the server. A NULL text is sent as an empty one unless the function
 * refuses NULL. The library does not interpret the numbers. Unlike the operations above, these
 * return the event code when the server reports an error, and do not log the error. Texts received
 * are copies that the caller frees. A NULL session gives CR_STATUS_NULL_HANDLE.
 */

/*
 * Record the last image. `dsid` 0 gives CR_STATUS_INVALID_PARAMETER, also without a session. Slot:
 * any status but 0 and CR_STATUS_NULL_HANDLE.
 *
 *   ignored  not used
 */
KSPOOL_API uint32_t MBSetLastImageV2(MBSession* session, uint32_t dsid, const char* client,
                                     const char* policy, int32_t parentid, uint64_t datetime,
                                     const char* imagename, int32_t flags) KSPOOL_NOEXCEPT;
KSPOOL_API uint32_t MBSetLastImage(MBSession* session, uint32_t dsid, const char* client,
                                   const char* policy, uint64_t datetime, const char* dofp,
                                   uint64_t ignored, uint64_t dcid, int32_t flags) KSPOOL_NOEXCEPT;

/*
 * The server's list of last images. CR_STATUS_NO_MEMORY when the list cannot be copied,
 * CR_STATUS_REMOTE_ERROR when the answer is empty, CR_STATUS_NULL_HANDLE for a NULL `answer`.
 * `*answer` is left alone when the transport fails, and NULL after other failures. Slot: any status
 * but 0 and CR_STATUS_NULL_HANDLE.
 */
KSPOOL_API uint32_t MBGetLastImages(MBSession* session, uint32_t dsid, const char* client,
                                    const char* policy, int32_t parentid, uint64_t datetime,
                                    char** answer) KSPOOL_NOEXCEPT;

/* Deletes an image's record. Slot: any status but 0 and CR_STATUS_NULL_HANDLE. */
KSPOOL_API uint32_t MBDeleteImage(MBSession* session, uint32_t dsid, const char* client,
                                  const char* policy, const char* imagename,
                                  int32_t flags) KSPOOL_NOEXCEPT;

/* What MBGetImageRetention() fills. */
typedef struct MBImageRetentionInfo {
    int64_t retentionValue1;  /* field 1 of the answer, a number */
    int64_t retentionValue2;  /* field 2 of the answer, a number */
    int64_t retentionValue3;  /* field 3 of the answer, a number */
    int64_t retentionValue4;  /* field 4 of the answer, a number */
    char retentionText[1024]; /* field 5, a text */
} MBImageRetentionInfo;

/*
 * Write and read an image's retention. NULL texts or output give CR_STATUS_NULL_HANDLE. Members
 * without a field in the answer keep their values; CR_STATUS_REMOTE_ERROR when the answer is empty.
 * Slot: the first function stores any status but 0 and CR_STATUS_NULL_HANDLE; the second leaves it
 * alone.
 *
 *   info  the caller's record, which is filled
 */
KSPOOL_API uint32_t MBSetImageRetention(MBSession* session, uint32_t dsid, const char* client,
                                        const char* policy, const char* imagename, int32_t flags,
                                        int64_t wormflags, int64_t retention) KSPOOL_NOEXCEPT;
KSPOOL_API uint32_t MBGetImageRetention(MBSession* session, uint32_t dsid, const char* client,
                                        const char* policy, const char* imagename,
                                        MBImageRetentionInfo* info) KSPOOL_NOEXCEPT;

/*
 * The policy of an image. NULL texts or output give CR_STATUS_NULL_HANDLE. CR_STATUS_NO_MEMORY
 * (output NULL) when the policy cannot be copied, CR_STATUS_REMOTE_ERROR when the answer is empty.
 *
 *   policy  receives the policy, the caller's to free()
 */
KSPOOL_API uint32_t MBFindImagePolicy(MBSession* session, uint32_t dsid, const char* client,
                                      const char* imagename, char** policy) KSPOOL_NOEXCEPT;

/*
 * The HVX tag of a data selection, from the SPA server. `*digit` is the answer's leading digit;
 * when the digit is above 0, `*tag` is the tag, else NULL. Statuses as in convention 2, and
 * CR_STATUS_NULL_HANDLE, logged, for a NULL argument; CR_STATUS_REMOTE_ERROR when the answer is
 * empty; CR_STATUS_BAD_HANDLE when it is too short; CR_STATUS_NO_MEMORY.
 *
 *   digit  receives the answer's leading digit
 *   tag    receives the tag, the caller's to free()
 */
KSPOOL_API uint32_t MBGetHVXTag(MBSession* session, uint32_t dataselection, int32_t* digit,
                                char** tag) KSPOOL_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
