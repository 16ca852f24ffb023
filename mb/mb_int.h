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

/// Releases a session and all that it holds; also one that is not complete.
void MBSessionTeardown(MBSession* session) noexcept;

namespace kspool {

/// How the files of this folder name themselves to the status library.
inline constexpr char kMbSource[] = "../mb";

/// What ends a list of parameters.
inline constexpr char* kEndOfParameters = nullptr;

/// Frees an answer's text unless it was handed on.
class Answer : public WSResult {
  public:
    Answer() noexcept : WSResult{} {}
    ~Answer();
    Answer(const Answer&) = delete;
    Answer& operator=(const Answer&) = delete;

    /// The text, which is the taker's from now on.
    char* takeData() noexcept {
        char* taken = data;
        data = nullptr;
        return taken;
    }
};

}  // namespace kspool

#endif
