// The Metabase session as its own files see it.
#ifndef MB_MB_INT_H
#define MB_MB_INT_H

#include <cstddef>

#include "common/diagnostics.h"
#include "ks.h"
#include "mb.h"
#include "platform/po.h"
#include "platform/ws.h"

enum MBState : uint32_t { MB_STATE_CLOSING = 2 };

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

/// A query under way. Its lines are cut in place out of the answer that `result` owns.
struct MBPOCursor {
    WSResult result;
    uint32_t poCount;  ///< as the answer announces
    uint32_t poIndex;  ///< handed out so far
    char* nextLine;    ///< NULL: the answer is malformed
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

/// Releases a session and all that it holds; also one that is not complete.
void MBSessionTeardown(MBSession* session) noexcept;

namespace kspool {

/// How the files of this folder name themselves to the status library.
inline constexpr char kMbSource[] = "../mb";

/// What ends a list of parameters.
inline constexpr char* kEndOfParameters = nullptr;

/// Prints a filter as the server wants it, as snprintf() does: returns the length, or a negative
/// value with the reason in the slot.
int _mbFilterToStringPrint(char* buffer, size_t size, const MBPOFilter* filter) noexcept;

/// Sends a query, again as the tunables say. Returns a cursor that stands at the first line, or
/// NULL with the reason in the slot.
MBPOCursor* _mbFindFirst(MBSession* session, uint32_t dataselection,
                         const MBPOFilter* filter) noexcept;

}  // namespace kspool

#endif
