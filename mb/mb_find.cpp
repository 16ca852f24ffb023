// A query: the request with its retries, and the head of its answer.
//
// There are two levels of retry. The transport repeats a request while the server cannot be reached
// or asks to retry later, within one call and under one request id. This file repeats a query that
// failed for any reason but an abort, as a new request with a longer response time-out: on a large
// data selection the server may need longer than one time-out, and a query changes nothing, so
// repeating it is safe.
#include <cstdlib>
#include <cstring>
#include <memory>

#include "common/owned.h"
#include "mb/mb_int.h"

int32_t ksvfs_conf_ws_timeout = 120;
int32_t ksvfs_conf_ws_retrycount = 3;

namespace kspool {
namespace {

struct CloseCursor {
    void operator()(MBPOCursor* cursor) const { MBPOFindClose(cursor); }
};
using Cursor = std::unique_ptr<MBPOCursor, CloseCursor>;

/// The query string of a filter, or NULL with the reason in the slot. The filter is printed twice,
/// first to get the length, because the length of its texts is not limited.
OwnedText _mbFilterToString(const MBPOFilter* filter) {
    const int length = _mbFilterToStringPrint(nullptr, 0, filter);
    if (length < 0) {
        KS_ERROR(statusSlot(),
                 "%s: Could not determine required buffer size to convert filter to string: %s",
                 "_mbFilterToString", CRStatusToStringA(statusSlot()));
        return nullptr;
    }
    const size_t size = static_cast<size_t>(length) + 1;
    OwnedText text(static_cast<char*>(calloc(1, size)));
    if (text == nullptr) {
        const uint32_t status = storeSystemError("_mbFilterToString", kMbSource);
        KS_ERROR(status,
                 "%s: Could not allocate buffer of %lu bytes to convert filter to string: %s",
                 "_mbFilterToString", static_cast<unsigned long>(size), CRStatusToStringA(status));
        return nullptr;
    }
    const int printed = _mbFilterToStringPrint(text.get(), size, filter);
    if (printed == length) return text;
    // Another thread has changed the filter in between. No call has failed, so the slot may be 0,
    // which MBPOFind() would return as success.
    if (printed >= 0) storeStatus(CR_STATUS_INVALID_PARAMETER);
    KS_ERROR(statusSlot(), "%s: Could not convert filter to string: %s", "_mbFilterToString",
             CRStatusToStringA(statusSlot()));
    return nullptr;
}

/// One query on its way to the server.
class Query {
  public:
    Query(const MBSession& session, uint32_t dataselection, const char* text, MBPOCursor& cursor)
        : transport_(session.transport),
          dataselection_(dataselection),
          text_(text),
          result_(cursor.result) {}

    /// False with the status of the last attempt in the slot. An event is a failure only in the
    /// first attempt. A retry that gets an event succeeds here, and its answer fails in readHead().
    bool send() {
        const uint32_t status = attempt();
        if (status == CR_STATUS_OK && result_.eventCode == 0) return true;
        KS_TRACE("%s: status of WSRequestExt: %d %s", "_mbFindFirst", static_cast<int>(status),
                 CRStatusToStringA(status));
        if (isAborted(status)) return false;
        return retry(status == CR_STATUS_OK ? uint32_t{CR_STATUS_REMOTE_ERROR} : status);
    }

  private:
    /// True for an aborted query, which is not retried. Stores its status.
    static bool isAborted(uint32_t status) {
        if (status == WS_STATUS_ABORTED) storeStatus(status);
        return status == WS_STATUS_ABORTED;
    }

    uint32_t attempt() {
        return WSRequestExt(transport_, WS_SERVICE_METABASE, &result_, "action", "find",
                            "dataselection", dataselection_, "filter", text_, kEndOfParameters);
    }

    /// Each retry extends the response time-out by the step; the transport keeps the new time-out.
    /// The tunables are read again for each retry, since programs may write the variables.
    bool retry(uint32_t status) {
        int64_t timeout = WSGetResponseTimeout(transport_);
        for (int64_t retries = 1; retries <= ksvfs_conf_ws_retrycount; ++retries) {
            timeout += ksvfs_conf_ws_timeout;
            free(result_.data);
            result_ = {};
            WSSetOptVa(transport_, uint32_t{WS_OPT_RESPONSE_TIMEOUT}, timeout, uint32_t{0});
            KS_TRACE("Retrying web service call (retry: %u, timeout: %u)",
                     static_cast<unsigned>(retries), static_cast<unsigned>(timeout));
            status = attempt();
            if (status == CR_STATUS_OK) {
                KS_TRACE("Retry completed successfully");
                return true;
            }
            KS_TRACE("%s: Retry failed: %d %s", "_mbFindFirst", static_cast<int>(status),
                     CRStatusToStringA(status));
            if (isAborted(status)) return false;
        }
        storeStatus(status);
        return false;
    }

    WSTransport* transport_;
    uint32_t dataselection_;
    const char* text_;
    WSResult& result_;
};

/// The low 32 bits of the number at the start of a line; 0 without one. Blanks are skipped here,
/// since leadingNumber() also skips line ends and would read a blank line's number from the next.
uint32_t countOf(const char* line, const char* end) {
    line += strspn(line, " \t\v\f");
    return line < end ? static_cast<uint32_t>(leadingNumber(line)) : 0;
}

/// Reads the three lines before the POs: names, types, count. Logs a malformed answer and returns
/// false.
bool readHead(MBPOCursor& cursor) {
    static constexpr const char* kUnterminated[] = {"PO field names improperly terminated",
                                                    "PO field types improperly terminated",
                                                    "PO count improperly terminated"};
    char* line = cursor.result.data;
    for (const char* unterminated : kUnterminated) {
        char* end = line != nullptr ? qlxstrpbrk(line, "\r\n") : nullptr;
        if (end == nullptr) {
            storeStatus(CR_STATUS_BAD_HANDLE);
            KS_ERROR(CR_STATUS_BAD_HANDLE,
                     "Could not complete query: data returned by server is incorrectly formatted "
                     "(%s)",
                     unterminated);
            return false;
        }
        cursor.poCount = countOf(line, end);  // the third line's value remains
        line = end + 1;
    }
    cursor.nextLine = line;
    return true;
}

Cursor makeCursor() {
    Cursor cursor(static_cast<MBPOCursor*>(calloc(1, sizeof(MBPOCursor))));
    if (cursor == nullptr) {
        const uint32_t status = storeSystemError("_mbFindFirst", kMbSource);
        KS_ERROR(status,
                 "Metabase query failure: could not allocate %u bytes to maintain query data (%s)",
                 static_cast<unsigned>(sizeof(MBPOCursor)), CRStatusToStringA(status));
    }
    return cursor;
}

}  // namespace

MBPOCursor* _mbFindFirst(MBSession* session, uint32_t dataselection,
                         const MBPOFilter* filter) noexcept {
    Cursor cursor = makeCursor();
    if (cursor == nullptr) return nullptr;
    const OwnedText query = _mbFilterToString(filter);
    if (query == nullptr) {
        KS_ERROR(statusSlot(),
                 "Metabase query failure: could not convert find filter to query string: %s",
                 CRStatusToStringA(statusSlot()));
        return nullptr;
    }
    KS_TRACE("%s: query is %s", "_mbFindFirst", query.get());
    if (!Query(*session, dataselection, query.get(), *cursor).send()) return nullptr;
    if (!readHead(*cursor)) return nullptr;
    KS_TRACE("%s: query = %s\nNumber of results = %u\nResponse data is:\n%s", "_mbFindFirst",
             query.get(), cursor->poCount, cursor->result.data);
    return cursor.release();
}

}  // namespace kspool

void MBSetTimeOut(int32_t step) noexcept {
    ksvfs_conf_ws_timeout = step;
}
int32_t MBGetTimeOut() noexcept {
    return ksvfs_conf_ws_timeout;
}
void MBSetRetryCount(int32_t count) noexcept {
    ksvfs_conf_ws_retrycount = count;
}
int32_t MBGetRetryCount() noexcept {
    return ksvfs_conf_ws_retrycount;
}
