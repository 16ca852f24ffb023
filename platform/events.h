/*
 * The events of a pool server: the reasons for which it refuses a request (docs/wire-protocol.md).
 *
 * Some operations return the code of an event as their status. The codes therefore begin at 10001:
 * they collide neither with the library's own statuses nor with those of the system (from 1000) and
 * of the transport (from 2000), and CRStatusToStringA() has a text for each. Codes are only ever
 * added: a code, once given out, keeps its meaning.
 */
#ifndef KSPOOL_PLATFORM_EVENTS_H
#define KSPOOL_PLATFORM_EVENTS_H

/* X(NAME, code, HTTP status of the answer, text: the answer's title and the status's text) */
#define KSPOOL_EVENTS(X)                                                            \
    X(UNKNOWN_LOGIN, 10001, 401, "unknown login or wrong password")                 \
    X(NO_PERMISSION, 10002, 403, "the login lacks a permission")                    \
    X(BAD_REQUEST, 10003, 400, "not a valid request")                               \
    X(NO_ENTRY, 10011, 404, "no such file or directory in the pool")                \
    X(ENTRY_EXISTS, 10012, 409, "there is an entry of this name in the pool")       \
    X(NOT_DIRECTORY, 10013, 409, "not a directory of the pool")                     \
    X(NOT_EMPTY, 10014, 409, "the directory of the pool is not empty")              \
    X(NEEDS_RECURSIVE, 10015, 409, "a directory of the pool is copied recursively") \
    X(INTO_ITSELF, 10016, 409, "an entry cannot be moved or copied into itself")    \
    X(BAD_PATH, 10017, 400, "not a valid path of the pool")                         \
    X(NO_SELECTION, 10021, 404, "no such data selection")                           \
    X(BAD_PO, 10022, 400, "not a valid PO or filter")                               \
    X(NO_IMAGE, 10023, 404, "no such image")                                        \
    X(BAD_IMAGE, 10024, 400, "not a valid image")                                   \
    X(SERVER_FAILED, 10031, 500, "the pool server failed")

/* A row of the list as an enumerator. */
#define KSPOOL_EVENT_CODE(name, code, status, text) POOL_EVENT_##name = (code),

/* The codes: POOL_EVENT_NO_ENTRY and so on, a name for each row of the list. */
enum PoolEvent { KSPOOL_EVENTS(KSPOOL_EVENT_CODE) };

#undef KSPOOL_EVENT_CODE

#endif
