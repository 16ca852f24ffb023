// What the server says when it does not do what it was asked for.
#ifndef SANDBOX_STORE_EVENT_H
#define SANDBOX_STORE_EVENT_H

#include <cstdint>
#include <string>

namespace sandbox {

enum EventCode : uint32_t {
    kUnknownLogin = 1001,
    kNoPermission = 1002,
    kBadRequest = 1003,
    kNotFound = 2001,
    kExists = 2002,
    kNotDirectory = 2003,
    kNotEmpty = 2004,
    kNeedsRecursive = 2005,
    kIntoItself = 2006,
    kBadPath = 2007,
    kNoSelection = 3001,
    kBadPO = 3002,
    kNoImage = 3003,
    kServerFailed = 9001,
};

/// Thrown by whatever finds that a request cannot be carried out, before anything was changed.
struct Event {
    EventCode code;
    std::string text;
};

}  // namespace sandbox

#endif
