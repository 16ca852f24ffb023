// The records of the Metabase client, and what its files share.
//
// Thread rule: one thread at a time per session and per cursor; a cursor does not touch its
// session. The query tunables (mb_find.cpp) belong to the process and are not synchronised.
#ifndef MB_MB_INT_H
#define MB_MB_INT_H

#include <cerrno>
#include <cstddef>
#include <cstdlib>

#include "common/diagnostics.h"
#include "ks.h"
#include "mb.h"
#include "platform/po.h"
#include "platform/ws.h"

enum MBState : uint32_t { MB_STATE_CLOSING = 2 };

/// A session: its configuration, and the transport that speaks to one server.
///
/// Invariants:
///  1. The record is trivially copyable, and owns `transport` and the text of `scratchPO`. A change
///     of options works on a copy (mb_options.cpp), which shares both and therefore never releases
///     them.
///  2. `transport` is NULL only in a session that is being created or torn down.
///  3. The transport gets its reconnect time-out at creation, and URL, login, password and key
///     location only with an option that refreshes it (common/option_table.cpp).
///  4. A record or copy that may hold a password is wiped before its memory is released.
struct MBSession {
    uint32_t callerWord;  ///< as given when the session was created; never interpreted
    uint32_t state;       ///< MB_STATE_... bits
    KSConfig config;
    PO scratchPO;
    WSTransport* transport;
    uint64_t opt133Value;  ///< of the last option 133; recorded only
};

static_assert(offsetof(MBSession, state) == 4 && offsetof(MBSession, config) == 8);
static_assert(offsetof(MBSession, scratchPO) == 19744 && offsetof(MBSession, transport) == 19760);
static_assert(offsetof(MBSession, opt133Value) == 19768 && sizeof(MBSession) == 19776);

/// A query's cursor. Lines are terminated in place in the answer, which `result.data` owns, and
/// returned as pointers into it: an answer of 100 MB is in memory only once.
///
/// Invariants:
///  1. `nextLine` points into the answer, at the line that the next step returns, and never moves
///     past the answer's NUL.
///  2. `poIndex` <= `poCount`. The count is what the server claims: an answer may have fewer lines,
///     and its end, an empty line or the last line, is then returned repeatedly.
///  3. The texts of `result` other than `data` belong to the transport and are not used here.
struct MBPOCursor {
    WSResult result;
    uint32_t poCount;  ///< as the answer announces
    uint32_t poIndex;  ///< returned so far
    char* nextLine;    ///< NULL until the head of the answer was read
};

static_assert(offsetof(MBPOCursor, poCount) == 48 && offsetof(MBPOCursor, poIndex) == 52);
static_assert(offsetof(MBPOCursor, nextLine) == 56 && sizeof(MBPOCursor) == 64);

static_assert(offsetof(MBPOFilter, criterion0) == 8 && offsetof(MBPOFilter, criterion4) == 64);
static_assert(offsetof(MBPOFilter, criterion12) == 68 && offsetof(MBPOFilter, criterion16) == 72);
static_assert(offsetof(MBPOFilter, criterion13) == 136 && offsetof(MBPOFilter, criterion5) == 152);
static_assert(offsetof(MBPOFilter, criterion15) == 164 && offsetof(MBPOFilter, criterion3) == 296);
static_assert(offsetof(MBPOFilter, criterion1) == 424 && offsetof(MBPOFilter, criterion26) == 432);
static_assert(sizeof(MBPOFilter) == 440);

static_assert(offsetof(MBImageRetentionInfo, retentionText) == 32);
static_assert(sizeof(MBImageRetentionInfo) == 1056);

/// Wipes and releases a session and its transport. The session may be incomplete.
void MBSessionTeardown(MBSession* session) noexcept;

namespace kspool {

/// The source file that the files of this folder report to the status library.
inline constexpr char kMbSource[] = "../mb";

/// Ends a variadic list of parameters. Typed, since a plain NULL may be passed as an int.
inline constexpr char* kEndOfParameters = nullptr;

/// The number at the start of a text, 0 without one. errno is restored: otherwise strtoll() could
/// leave ERANGE after a call that succeeds.
inline int64_t leadingNumber(const char* text) noexcept {
    const int kept = errno;
    const int64_t number = strtoll(text, nullptr, 10);
    errno = kept;
    return number;
}

/// Prints a filter as the server wants it, as snprintf() does: returns the length, or a negative
/// value with the reason in the slot.
int _mbFilterToStringPrint(char* buffer, size_t size, const MBPOFilter* filter) noexcept;

/// Sends a query, with the retries that the tunables allow. Returns a cursor at the first PO, or
/// NULL with the reason in the slot.
MBPOCursor* _mbFindFirst(MBSession* session, uint32_t dataselection,
                         const MBPOFilter* filter) noexcept;

}  // namespace kspool

#endif
