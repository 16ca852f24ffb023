/*
 * Status values of the library.
 *
 * 1. A status is an unsigned 32-bit number; 0 means success. Values are only ever added: a number,
 *    once given out, keeps its meaning.
 * 2. The values below are the library's own. A status that comes from a failed system call, from
 *    the transport or from another library of the pool is passed on as it is; CRStatusToStringA()
 *    (platform/status.h) has a text for every status.
 * 3. The status slot is one status word per thread, *__cr_errno_location() (platform/status.h).
 *    Functions that return a handle leave the reason of a failure there, unless they say otherwise.
 *    Functions that return a status say in their comment whether they store it there as well.
 */
#ifndef CR_STATUS_H
#define CR_STATUS_H

/* What functions return. */
enum CRStatus {
    /* Success. */
    CR_STATUS_OK = 0,
    /* The fingerprint is already in the cache. A result, never stored in the status slot. */
    CR_STATUS_EXISTS = 1,
    /* Nothing (more) to return: no PO matched, a cursor is exhausted, a fingerprint is unknown. */
    CR_STATUS_NOT_FOUND = 2,
    /* The request reached the server, and the server reported an error other than a permission. */
    CR_STATUS_REMOTE_ERROR = 4,
    /* A required argument other than the handle is NULL (or empty, or unknown). */
    CR_STATUS_INVALID_PARAMETER = 9,
    /* More option records than one call accepts, or a text that does not fit its field. */
    CR_STATUS_LIMIT_EXCEEDED = 10,
    /* The cache is being walked, or its file is held already. */
    CR_STATUS_BUSY = 11,
    /* The argument that is to receive the result is NULL. */
    CR_STATUS_NULL_OUTPUT = 14,
    /* No memory for the copy that the caller is to receive. */
    CR_STATUS_NO_MEMORY = 22,
    /* Seeking in the cache file failed. */
    CR_STATUS_SEEK_FAILED = 23,
    /* Reading the cache file failed while its checksum was computed. */
    CR_STATUS_READ_FAILED = 25,
    /* The cache file's checksum does not match its contents. */
    CR_STATUS_CORRUPT = 32,
    /* The handle is NULL. */
    CR_STATUS_NULL_HANDLE = 44,
    /* A handle or file does not carry its magic, or the server's data is badly formatted. */
    CR_STATUS_BAD_HANDLE = 82,
    /* An option value is not valid for its kind (fingerprint type, DO type). */
    CR_STATUS_INVALID_VALUE = 85,
    /* The server refused the request for lack of a permission. */
    CR_STATUS_PERMISSION_DENIED = 106,
    /* The server reported no error, but its answer lacks the expected field names. */
    CR_STATUS_BAD_RESPONSE = 108
};

#endif
