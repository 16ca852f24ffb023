// One attempt of a request, and the time that it has.
#ifndef PLATFORM_STANDIN_TRANSPORT_ATTEMPT_H
#define PLATFORM_STANDIN_TRANSPORT_ATTEMPT_H

#include <chrono>

#include "platform/standin/transport/transport.h"

namespace ws {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// The time that a request has left. Bytes that move, in either direction, extend it: a long
/// transfer at a fair rate goes on, and a server that trickles is still bounded.
class TimeLimit {
  public:
    /// `response` 0: no limit.
    TimeLimit(milliseconds response, milliseconds reconnect)
        : response_(response), end_(Clock::now() + response + reconnect) {}

    /// To be called at the start of an attempt: nothing has moved yet.
    void restart() { lastMove_ = Clock::now(); }

    void moved(uint64_t bytes);

    /// Zero or less when the time is over, and never more than a minute.
    Clock::duration left() const;

    /// True for a time at which the whole request is over.
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
    /// The server may have carried the request out, as far as this attempt tells.
    bool mayBeDone = false;
    /// The server, or a gateway before it, or the lack of a connection asks for another attempt.
    bool isRetryable = false;
    std::chrono::seconds retryAfter{0};  ///< 0: the server did not say
};

/// Makes one attempt with the options that are set. On success `text` or the transport's event is
/// filled.
Outcome attempt(WSTransport& transport, TimeLimit& limit, kspool::OwnedText& text);

/// Forgets aborts of former requests.
void forgetAborts(WSTransport& transport);

/// Takes the bytes out of the eventfd: it would otherwise end every wait to come.
void emptyWake(const WSTransport& transport);

}  // namespace ws

#endif
