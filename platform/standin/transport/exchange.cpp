// The transport's stand-in: one request from its headers to its status.
//
// A request is tried in attempts (attempt.cpp), with pauses between them.
//
// Invariants of a request:
//  1. All attempts and transmissions carry the same bytes and the same Request-Id, which makes a
//     repetition idempotent on a server that remembers ids.
//  2. The deadline is the response plus the reconnect time-out after the start, extended by a
//     second for each 64 KiB transferred. No attempt begins after the deadline. An attempt ends
//     when no byte is transferred for one response time-out. Without a response time-out, neither
//     limit exists.
//  3. A status that promises "nothing was done" is returned only when no transmission of any
//     attempt can have been carried out.
//  4. WSAbort() ends an attempt or a pause, and no attempt follows.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cinttypes>
#include <ctime>
#include <random>

#include "platform/standin/transport/attempt.h"

namespace ws {
namespace {

constexpr int64_t kLongestTimeout = 86'400;
constexpr milliseconds kBackOffBase{100};
constexpr milliseconds kBackOffCap{5'000};

void addHeader(HeaderList& list, const std::string& line) {
    curl_slist* longer = curl_slist_append(list.get(), line.c_str());
    if (longer == nullptr) throw std::bad_alloc();
    [[maybe_unused]] curl_slist* same = list.release();
    list.reset(longer);
}

/// The request's own headers. "Expect:" without a value suppresses the header that libcurl adds to
/// large bodies, which would cost a round trip.
HeaderList headersFor(WSTransport& transport, const Request& request) {
    char id[33];
    snprintf(id, sizeof id, "%016" PRIx64 "%016" PRIx64, transport.idStart, ++transport.requests);
    transport.trace.id = id;
    HeaderList headers;
    addHeader(headers, "Request-Id: " + transport.trace.id);
    addHeader(headers, "Expect:");
    if (request.contentType != nullptr) {
        addHeader(headers, std::string("Content-Type: ") + request.contentType);
    }
    return headers;
}

/// Sets the options that differ from request to request. They stay the same for all its attempts.
void prepare(WSTransport& transport, const Request& request, const curl_slist* headers) {
    CURL* curl = transport.curl.get();
    setCurl(curl, CURLOPT_URL, (transport.base + request.path).c_str());
    // Set the request target explicitly: when libcurl runs out of memory while it copies the query
    // of a URL, it sends the path without the query.
    setCurl(curl, CURLOPT_REQUEST_TARGET, (transport.path + request.path).c_str());
    setCurl(curl, CURLOPT_HTTPHEADER, headers);
    if (request.contentType == nullptr) {
        setCurl(curl, CURLOPT_HTTPGET, 1L);
    } else {
        setCurl(curl, CURLOPT_POSTFIELDS, request.body);
        setCurl(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.bodySize));
        setCurl(curl, CURLOPT_POST, 1L);
    }
}

milliseconds seconds(int64_t count) {
    return std::chrono::seconds(std::clamp<int64_t>(count, 0, kLongestTimeout));
}

/// The attempts of one request.
class Call {
  public:
    explicit Call(WSTransport& transport)
        : transport_(transport),
          reconnect_(seconds(transport.settings.reconnectTimeout)),
          limit_(seconds(transport.settings.responseTimeout), reconnect_) {}

    uint32_t run(kspool::OwnedText& text) {
        attempt(text);
        const auto firstFailure = Clock::now();
        for (unsigned failures = 1; last_.isRetryable; ++failures) {
            const auto left = reconnect_ - (Clock::now() - firstFailure);
            if (left <= Clock::duration::zero()) break;
            const auto rest = std::min<Clock::duration>(left, backOff(failures));
            if (limit_.isOverAt(Clock::now() + rest)) break;
            pause(rest);
            if (transport_.aborted) return WS_STATUS_ABORTED;
            attempt(text);
        }
        // These statuses promise that nothing was done; that is known of the last attempt only.
        const bool unsent = last_.status == WS_STATUS_NO_CONNECT ||
                            last_.status == WS_STATUS_CONNECT_TIMED_OUT ||
                            last_.status == WS_STATUS_TLS;
        return unsent && mayBeDone_ ? uint32_t{WS_STATUS_CUT} : last_.status;
    }

  private:
    void attempt(kspool::OwnedText& text) {
        transport_.event = {};
        last_ = ws::attempt(transport_, limit_, text);
        if (transport_.transmissions > 0) transport_.lastUse = time(nullptr);
        if (last_.httpStatus != 0)
            transport_.trace.httpStatus = static_cast<uint32_t>(last_.httpStatus);
        ++transport_.trace.attempts;
        // An event of the server promises that no transmission of this request was carried out. A
        // gateway's answer promises nothing: it may replace an answer that was lost.
        const bool refused = last_.status == CR_STATUS_OK && transport_.event.code != 0;
        mayBeDone_ = !refused && (mayBeDone_ || last_.mayBeDone);
    }

    /// Sleeps for a time, or until WSAbort() is called.
    void pause(Clock::duration time) const {
        const auto end = Clock::now() + time;
        while (!transport_.aborted) {
            const auto left = std::chrono::ceil<milliseconds>(end - Clock::now());
            if (left.count() <= 0) return;
            pollfd wake = {transport_.wake.get(), POLLIN, 0};
            if (poll(&wake, 1, static_cast<int>(left.count())) > 0) emptyWake(transport_);
        }
    }

    /// The pause before the next attempt: Retry-After if the server sent one, else exponential
    /// back-off with full jitter (a random part of a span that doubles up to a cap). Without
    /// jitter, clients that a failing server dropped at the same time would return at the same
    /// time.
    Clock::duration backOff(unsigned failures) const {
        if (last_.retryAfter.count() > 0) return seconds(last_.retryAfter.count());
        const milliseconds most =
            std::min(kBackOffBase * (1U << std::min(failures, 10U)), kBackOffCap);
        // Seeded differently in each transport, so that their pauses differ.
        std::minstd_rand random(static_cast<uint32_t>(transport_.idStart + failures) ^
                                static_cast<uint32_t>(transport_.requests << 8));
        random.discard(1);
        return std::chrono::duration_cast<Clock::duration>(most) * (random() % 1000 + 1) / 1000;
    }

    WSTransport& transport_;
    const milliseconds reconnect_;
    TimeLimit limit_;
    Outcome last_;
    bool mayBeDone_ = false;  ///< an attempt may have reached the server and been carried out
};

void countRequest(WSStatisticsRecord& statistics, Clock::duration took) {
    const auto microseconds =
        static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(took).count());
    ++statistics.requests;
    statistics.microseconds += microseconds;
    const auto magnitude = static_cast<size_t>(std::bit_width(microseconds));
    ++statistics.latencies[std::min<size_t>(magnitude, WS_LATENCIES - 1)];
}

}  // namespace

uint32_t exchange(WSTransport& transport, const Request& request, kspool::OwnedText& text) {
    if (transport.owner != getpid()) return WS_STATUS_FORKED;
    forgetAborts(transport);
    transport.event = {};
    transport.trace = {};
    if (!transport.configured) configure(transport);
    if (transport.unusable != 0) return transport.unusable;
    const auto start = Clock::now();
    const HeaderList headers = headersFor(transport, request);
    prepare(transport, request, headers.get());
    const uint32_t status = Call(transport).run(text);
    curl_easy_setopt(transport.curl.get(), CURLOPT_HTTPHEADER, nullptr);
    // When a reused connection is dead, libcurl repeats the request on a new one, but only five
    // times in the life of a handle, unless the handle is reset. So after a request that opened a
    // connection, the next request configures, and thereby resets, the handle.
    long connects = 0;
    curl_easy_getinfo(transport.curl.get(), CURLINFO_NUM_CONNECTS, &connects);
    if (connects > 0) transport.configured = false;
    countRequest(transport.statistics, Clock::now() - start);
    return status;
}

}  // namespace ws
