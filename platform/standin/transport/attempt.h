// One attempt of a request, and the time that it has.
#ifndef PLATFORM_STANDIN_TRANSPORT_ATTEMPT_H
#define PLATFORM_STANDIN_TRANSPORT_ATTEMPT_H

#include <chrono>

#include "platform/standin/transport/transport.h"

namespace ws {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// The time that a request has left. Each byte transferred, in either direction, extends it: a long
/// transfer at a reasonable rate can complete, but a server that trickles bytes is still bounded.
class TimeLimit {
  public:
    /// `response` 0: no limit.
    TimeLimit(milliseconds response, milliseconds reconnect)
        : response_(response), end_(Clock::now() + response + reconnect) {}

    /// Restarts the response time-out. To be called at the start of an attempt.
    void restart() { lastMove_ = Clock::now(); }

    void moved(uint64_t bytes);

    /// The time to wait at most: zero or less when the time is over, never more than a minute.
    Clock::duration left() const;

    /// True for a time at or after the deadline of the request.
    bool isOverAt(Clock::time_point time) const { return response_.count() != 0 && time >= end_; }

  private:
    const milliseconds response_;
    Clock::time_point end_;
    Clock::time_point lastMove_;
    uint64_t unpaid_ = 0;  ///< bytes that have not yet bought a second
};

/// How an attempt ended.
struct Outcome {
    uint32_t status = WS_STATUS_FAILED;
    long httpStatus = 0;
    /// Judging by this attempt alone, the server may have carried out the request.
    bool mayBeDone = false;
    /// No connection could be made, or the server or a gateway before it asks to retry later.
    bool isRetryable = false;
    std::chrono::seconds retryAfter{0};  ///< 0: the server did not say
};

/// Makes one attempt with the options that are set. On success `text` or the transport's event is
/// filled.
Outcome attempt(WSTransport& transport, TimeLimit& limit, kspool::OwnedText& text);

/// Clears aborts that were meant for earlier requests.
void forgetAborts(WSTransport& transport);

/// Resets the eventfd: otherwise it would end every later wait.
void emptyWake(const WSTransport& transport);

}  // namespace ws

#endif
