// The scripted transport in place of the real one, with the replies of a fuzz target.
#ifndef TESTS_FUZZ_REPLIES_H
#define TESTS_FUZZ_REPLIES_H

#include "platform/status.h"
#include "platform/ws.h"
#include "tests/support/scripted_platform.h"

namespace fuzz {

inline std::function<scripted::Reply(const std::string& call)> onCall;

/// A mode for WSArchMode(), with the slot filled in where there is no mode.
inline uint32_t modeWithSlot(uint32_t mode) {
    if (mode == UINT32_MAX) *__cr_errno_location() = WS_STATUS_NO_CONNECT;
    return mode;
}

}  // namespace fuzz

// Each target is one source, which includes this header.
scripted::Reply scripted::answered(const std::string& call, const std::string&, bool) {
    return fuzz::onCall(call);
}

#endif
