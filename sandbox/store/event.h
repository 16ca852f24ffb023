// The error of the wire protocol: a request that is not carried out is answered with an event.
#ifndef SANDBOX_STORE_EVENT_H
#define SANDBOX_STORE_EVENT_H

#include <exception>
#include <string>
#include <utility>

#include "platform/events.h"

namespace sandbox {

/// Thrown when a request cannot be carried out. Effects that the request had until then are rolled
/// back with its transaction.
class Event : public std::exception {
  public:
    Event(PoolEvent code, std::string text) : code_(code), text_(std::move(text)) {}

    PoolEvent code() const noexcept { return code_; }
    /// The complete text; what() ends at the first NUL, which a client may have sent as %00.
    const std::string& text() const noexcept { return text_; }
    const char* what() const noexcept override { return text_.c_str(); }

  private:
    PoolEvent code_;
    std::string text_;
};

}  // namespace sandbox

#endif
