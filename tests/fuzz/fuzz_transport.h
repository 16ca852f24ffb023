// A transport that answers what a fuzz target wants. It is linked in place of the real one.
#ifndef TESTS_FUZZ_TRANSPORT_H
#define TESTS_FUZZ_TRANSPORT_H

#include <functional>

#include "platform/ws.h"

namespace fuzz {

/// Fills the result of each request, and says what the request returns.
inline std::function<uint32_t(WSResult&)> onRequest;

/// What WSArchMode() returns, and all that sets options.
inline uint32_t archMode = 0;
inline uint32_t setStatus = 0;

}  // namespace fuzz

#endif
