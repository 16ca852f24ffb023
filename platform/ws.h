/*
 * The web-service transport: sends requests to the pool's servers and returns their answers.
 *
 * This header is a contract without code. The library calls the first part; the second is for
 * programs that inspect or adjust a transport of the implementation in platform/standin/.
 *
 * A transport is used by one thread at a time; different transports are independent. Only WSAbort()
 * may run during another call. After a fork a transport belongs to the parent: requests of the
 * child fail, and its WSShutdown() frees memory and sends nothing. Texts are copied when they are
 * set. Calls that return a status leave the status slot alone; errno is undefined after every call.
 *
 * Arguments that mean the same everywhere:
 *
 *   transport      a transport of WSInit()
 *   options        option records, copied
 *   count          number of option records
 *   service        WS_SERVICE_...
 *   result         the caller's record, zeroed, which receives the answer
 *   dataselection  number of the data selection
 *   body           text of the request
 *   action         name of the action
 *   record         receives what is asked for
 *   code           code of the option
 *   bytes          the limit
 *   a              0
 *   b              0
 *   c              0
 *   d              0
 *   e              0
 */
#ifndef PLATFORM_WS_H
#define PLATFORM_WS_H

#include <stdint.h>

#include "kspool_api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A transport. Opaque; made by WSInit(). */
typedef struct WSTransport WSTransport;

/* One option with its value. */
typedef struct WSOption {
    uint32_t code; /* WS_OPT_... */
    union {
        int64_t number;
        const char* text;
    } value; /* as the code wants it */
} WSOption;

/* An empty text means that the option is not set. */
enum WSOptionCode {
    WS_OPT_SERVER_URL = 0, /* text; a list of pairs ends with 0, so only by array */
    WS_OPT_LOGIN = 1,      /* text without ':' */
    WS_OPT_PASSWORD = 2,   /* text */
    WS_OPT_7 = 7,          /* integer */
    WS_OPT_8 = 8,          /* integer */
    WS_OPT_RESPONSE_TIMEOUT =
        9, /* integer, seconds without a byte transferred, up to a day; 0 or less: none */
    WS_OPT_SSL_KEY_LOCATION = 11,  /* text: a PEM file with key and certificate; the system's
                                      authorities are then trusted. Or a folder with all of ca.pem,
                                      cert.pem, key.pem; only ca.pem is then trusted */
    WS_OPT_RECONNECT_TIMEOUT = 12, /* integer, seconds; 0 or less: none */
    WS_OPT_LAST = 12
};

/* Which service of the server a request is for. */
enum WSService { WS_SERVICE_METABASE = 6, WS_SERVICE_SPA = 9, WS_SERVICE_KEEPALIVE = 13 };

/* Why a request got no valid answer. */
enum WSStatus {
    WS_STATUS_FAILED = 2000,            /* the transport itself cannot work */
    WS_STATUS_NO_SERVER = 2001,         /* no server URL is set, or it is invalid */
    WS_STATUS_PLAINTEXT = 2002,         /* plain http to another machine is not allowed */
    WS_STATUS_FORKED = 2003,            /* the transport belongs to the parent process */
    WS_STATUS_NO_CONNECT = 2004,        /* connection refused, or server name unknown */
    WS_STATUS_TIMED_OUT = 2005,         /* sent, but no complete answer in time */
    WS_STATUS_CUT = 2006,               /* the connection ended before the answer was complete */
    WS_STATUS_TLS = 2007,               /* no secure connection: certificate, key or protocol */
    WS_STATUS_BAD_ANSWER = 2008,        /* an answer that violates the protocol */
    WS_STATUS_TOO_LARGE = 2009,         /* an answer over the limit */
    WS_STATUS_CONNECT_TIMED_OUT = 2010, /* no connection in time: name, TCP or TLS */
    WS_STATUS_ABORTED = 2011            /* ended by WSAbort() */
};

/*
 * The result of a request. The caller zeroes it before the request. The four texts of an event are
 * NULL where the server left them out, belong to the transport and are valid until its next
 * request.
 */
typedef struct WSResult {
    uint32_t eventCode;        /* 0 when the server carried the action out */
    char* data;                /* the answer's text, malloc()ed, the caller's to free(), or NULL */
    const char* severity;      /* severity of the event */
    const char* serverAddress; /* address of the reporting server */
    const char* sourceApplication; /* component that reported */
    const char* description;       /* description for people */
} WSResult;

/* What a transport knows about its last request. Unknown texts are NULL. */
typedef struct WSEventRecord {
    uint32_t eventCode;            /* 0 without an event */
    uint32_t httpStatus;           /* of the last answer; 0 without one */
    uint32_t attempts;             /* made; 0: the request was refused before the first */
    const char* requestId;         /* 32 hexadecimal digits */
    const char* severity;          /* severity of the event */
    const char* serverAddress;     /* address of the reporting server */
    const char* sourceApplication; /* component that reported */
    const char* description;       /* description for people */
} WSEventRecord;

enum { WS_LATENCIES = 32 }; /* number of classes */

/* What a transport has done since WSInit(). Requests that were refused before they were sent do not
 * count. */
typedef struct WSStatisticsRecord {
    uint64_t requests;                /* including those that could not be sent */
    uint64_t attempts;                /* at least one per request */
    uint64_t connections;             /* opened */
    uint64_t bytesSent;               /* heads and bodies, without TLS */
    uint64_t bytesReceived;           /* the same */
    uint64_t microseconds;            /* in requests, pauses included */
    uint64_t latencies[WS_LATENCIES]; /* histogram: class k counts requests that took at least
                                         2^(k-1) and less than 2^k microseconds, the last class
                                         also all longer ones */
} WSStatisticsRecord;

/* ---- What the library calls ---- */

/* A new transport, or NULL with the reason in the status slot. The arguments are 0. */
KSPOOL_API WSTransport* WSInit(int a, int b, int c, int d, int e) KSPOOL_NOEXCEPT;

/*
 * Closes the connection, wipes its own copies of login, password and the other texts and frees the
 * transport. NULL is allowed.
 */
KSPOOL_API void WSShutdown(WSTransport* transport) KSPOOL_NOEXCEPT;

/*
 * Sets options, all of them or none. Returns 0; 9 for an unknown code, a NULL text or a login with
 * ':'; 10 for a text of 4096 characters or more; 22 when memory is short. Key files are opened at
 * the next request.
 */
KSPOOL_API uint32_t WSSetOpt(WSTransport* transport, const WSOption* options,
                             uint32_t count) KSPOOL_NOEXCEPT;

/* The same with pairs of a code (32 bits) and an int64_t or a text, at most 8, ended by code 0. */
KSPOOL_API uint32_t WSSetOptVa(WSTransport* transport, ...) KSPOOL_NOEXCEPT;

/*
 * Sends one request and waits for its answer. Parameters are pairs of a name and a value, ended by
 * a char pointer that is NULL; the first is "action" and a text. The name tells the value's type:
 *   text                action, path, source, destination, data, filter, client, policy, imagename,
 *                       dofp, appname (NULL is sent as empty)
 *   uint32_t            dataselection, dsid, recursive
 *   int32_t             parentid, flags
 *   uint64_t            datetime, dcid
 *   int64_t             wormflags, retention
 * Returns 0 when the server answered, with `result` filled: eventCode 0 and the text, or an event.
 * Any other status clears `result`: 9 for an unknown name or service, 22 when memory is short, or a
 * WS_STATUS_... value. The server has not carried out the request after 9, WS_STATUS_NO_SERVER,
 * WS_STATUS_PLAINTEXT, WS_STATUS_FORKED, WS_STATUS_NO_CONNECT, WS_STATUS_TLS and
 * WS_STATUS_CONNECT_TIMED_OUT; after any other status it may have done so, once.
 *
 * A request ends when no byte is transferred, in either direction, for one response time-out. Its
 * deadline is the response plus the reconnect time-out after its start, extended by a second for
 * each 64 KiB transferred.
 */
KSPOOL_API uint32_t WSRequestExt(WSTransport* transport, uint32_t service, WSResult* result,
                                 ...) KSPOOL_NOEXCEPT;

/* The same for an action whose text is the body of the request. A NULL body is sent as empty. */
KSPOOL_API uint32_t WSRequestPOST(WSTransport* transport, uint32_t service, WSResult* result,
                                  uint32_t dataselection, const char* body,
                                  const char* action) KSPOOL_NOEXCEPT;

/* The time() of the last request that was sent; before any, of WSInit(). */
KSPOOL_API int64_t WSGetLastUseTime(const WSTransport* transport) KSPOOL_NOEXCEPT;

/* The time-outs in seconds. The reconnect time-out is 0 when not set, that for responses 30. */
KSPOOL_API int64_t WSGetReconnectTimeout(const WSTransport* transport) KSPOOL_NOEXCEPT;
KSPOOL_API int64_t WSGetResponseTimeout(const WSTransport* transport) KSPOOL_NOEXCEPT;

/*
 * The server's architecture mode, 0 for a legacy server. The first call asks the server; later ones
 * return the same value until the server URL changes. 0xFFFFFFFF, with the reason in the status
 * slot, on failure.
 */
KSPOOL_API uint32_t WSArchMode(WSTransport* transport) KSPOOL_NOEXCEPT;

/*
 * The library refers to the next three weakly: an implementation may leave them out.
 *
 * WSAbort() ends the current request, which runs in another thread or in the code that a signal has
 * interrupted, with WS_STATUS_ABORTED. Between requests the call has no effect. Any thread and any
 * signal handler may call it, but not during WSShutdown(). errno is left alone. Returns 0, or
 * WS_STATUS_FORKED in a child.
 */
KSPOOL_API uint32_t WSAbort(WSTransport* transport) KSPOOL_NOEXCEPT;

/* Describes the last request. The texts are the transport's, valid until its next request. */
KSPOOL_API void WSLastEvent(const WSTransport* transport, WSEventRecord* record) KSPOOL_NOEXCEPT;

/* Gets the transport's statistics. */
KSPOOL_API void WSStatistics(const WSTransport* transport,
                             WSStatisticsRecord* record) KSPOOL_NOEXCEPT;

/* ---- For programs ---- */

/* The value of WS_OPT_7 or WS_OPT_8, 0 when not set. */
KSPOOL_API int64_t WSGetOption(const WSTransport* transport, uint32_t code) KSPOOL_NOEXCEPT;

/* Limits the size of answers, in bytes, for all transports of the process; 4 GiB unless set. */
KSPOOL_API void WSSetAnswerLimit(uint64_t bytes) KSPOOL_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
