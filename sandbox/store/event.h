// The error of the wire protocol: a request that is not carried out is answered with an event.
#ifndef SANDBOX_STORE_EVENT_H
#define SANDBOX_STORE_EVENT_H

#include <cstdint>
#include <exception>
#include <string>
#include <utility>

namespace sandbox {

/// The numbers are those of docs/wire-protocol.md: clients compare them.
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

/// Thrown by any function that finds that a request cannot be carried out. The effects that the
/// request had until then are rolled back with its transaction.
class Event : public std::exception {
  public:
    Event(EventCode code, std::string text) : code_(code), text_(std::move(text)) {}

    EventCode code() const noexcept { return code_; }
    /// The whole text; what() ends at the first NUL, which a client may have sent as %00.
    const std::string& text() const noexcept { return text_; }
    const char* what() const noexcept override { return text_.c_str(); }

  private:
    EventCode code_;
    std::string text_;
};

}  // namespace sandbox

#endif
