// The transport's stand-in: one request from its headers to its status.
//
// A request is tried in attempts, each one curl_easy_perform(). There is no multi handle: a request
// blocks its own thread, and only its time-outs end the wait. libcurl may transmit the request
// more than once within an attempt, when a connection that was kept open turns out to be dead.
//
// Invariants of a request:
//  1. All attempts and transmissions carry the same bytes and the same Request-Id, which makes a
//     repetition idempotent on a server that remembers ids.
//  2. The deadline is the response plus the reconnect time-out after the start. No attempt begins
//     later, and each is limited to the response time-out and to the time left. Two things are not
//     covered: without a response time-out an attempt has no limit, and libcurl, at the end of one,
//     waits for a name resolution that is still under way.
//  3. A status that promises "nothing was done" is returned only when no transmission of any
//     attempt can have been carried out.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstring>
#include <ctime>
#include <iterator>
#include <new>
#include <random>
#include <thread>

#include "platform/standin/transport/transport.h"
#include "platform/status.h"

namespace ws {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int64_t kLongestTimeout = 86'400;
constexpr milliseconds kBackOffBase{100};
constexpr milliseconds kBackOffCap{5'000};

struct Meaning {
    CURLcode code;
    uint32_t status;
};

/// The status of each failure that libcurl reports. One that is not listed is WS_STATUS_FAILED.
constexpr Meaning kMeanings[] = {
    {CURLE_COULDNT_RESOLVE_HOST, WS_STATUS_NO_CONNECT},
    {CURLE_COULDNT_RESOLVE_PROXY, WS_STATUS_NO_CONNECT},
    {CURLE_COULDNT_CONNECT, WS_STATUS_NO_CONNECT},
    {CURLE_PROXY, WS_STATUS_NO_CONNECT},
    {CURLE_OPERATION_TIMEDOUT, WS_STATUS_TIMED_OUT},
    {CURLE_PARTIAL_FILE, WS_STATUS_CUT},
    {CURLE_GOT_NOTHING, WS_STATUS_CUT},
    {CURLE_SEND_ERROR, WS_STATUS_CUT},
    {CURLE_RECV_ERROR, WS_STATUS_CUT},
    {CURLE_SSL_CONNECT_ERROR, WS_STATUS_TLS},
    {CURLE_SSL_ENGINE_NOTFOUND, WS_STATUS_TLS},
    {CURLE_SSL_ENGINE_SETFAILED, WS_STATUS_TLS},
    {CURLE_SSL_CERTPROBLEM, WS_STATUS_TLS},
    {CURLE_SSL_CIPHER, WS_STATUS_TLS},
    {CURLE_PEER_FAILED_VERIFICATION, WS_STATUS_TLS},
    {CURLE_SSL_CACERT_BADFILE, WS_STATUS_TLS},
    {CURLE_SSL_ISSUER_ERROR, WS_STATUS_TLS},
    {CURLE_SSL_INVALIDCERTSTATUS, WS_STATUS_TLS},
    {CURLE_SSL_CLIENTCERT, WS_STATUS_TLS},
    {CURLE_UNSUPPORTED_PROTOCOL, WS_STATUS_BAD_ANSWER},
    {CURLE_WEIRD_SERVER_REPLY, WS_STATUS_BAD_ANSWER},
    {CURLE_BAD_CONTENT_ENCODING, WS_STATUS_BAD_ANSWER},
    {CURLE_TOO_MANY_REDIRECTS, WS_STATUS_BAD_ANSWER},
    {CURLE_FILESIZE_EXCEEDED, WS_STATUS_TOO_LARGE},
    {CURLE_OUT_OF_MEMORY, CR_STATUS_NO_MEMORY},
};

uint32_t meaningOf(CURLcode code) {
    const auto* row = std::find_if(std::begin(kMeanings), std::end(kMeanings),
                                   [=](const Meaning& m) { return m.code == code; });
    return row != std::end(kMeanings) ? row->status : uint32_t{WS_STATUS_FAILED};
}

void addHeader(HeaderList& list, const std::string& line) {
    curl_slist* longer = curl_slist_append(list.get(), line.c_str());
    if (longer == nullptr) throw std::bad_alloc();
    [[maybe_unused]] curl_slist* same = list.release();
    list.reset(longer);
}

/// The request's own headers. "Expect:" without a value suppresses the header that libcurl adds to
/// large bodies, which would cost a round trip.
HeaderList headersFor(WSTransport& transport, const Request& request) {
    char id[48];
    snprintf(id, sizeof id, "Request-Id: %016" PRIx64 "%016" PRIx64, transport.idStart,
             ++transport.requests);
    HeaderList headers;
    addHeader(headers, id);
    addHeader(headers, "Expect:");
    if (request.contentType != nullptr) {
        addHeader(headers, std::string("Content-Type: ") + request.contentType);
    }
    return headers;
}

/// Sets the options that differ from request to request. They stay the same for all its attempts.
void prepare(WSTransport& transport, const Request& request, const curl_slist* headers) {
    CURL* curl = transport.curl.get();
    const std::string url = transport.base + request.path;
    setCurl(curl, CURLOPT_URL, url.c_str());
    // When libcurl runs out of memory while it copies the query, it sends the path without it. A
    // request target of our own is sent as it is.
    if (transport.pathStart != 0)
        setCurl(curl, CURLOPT_REQUEST_TARGET, url.c_str() + transport.pathStart);
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

/// The attempts of one request, and the time that they have.
class Call {
  public:
    explicit Call(WSTransport& transport)
        : transport_(transport),
          curl_(transport.curl.get()),
          response_(seconds(transport.settings.responseTimeout)),
          reconnect_(seconds(transport.settings.reconnectTimeout)),
          deadline_(Clock::now() + reconnect_ + response_) {}

    uint32_t run(kspool::OwnedText& text) {
        uint32_t status = attempt(text);
        const auto firstFailure = Clock::now();
        for (unsigned failures = 1; isRetryable(status); ++failures) {
            const auto left = reconnect_ - (Clock::now() - firstFailure);
            if (left <= Clock::duration::zero()) break;
            std::this_thread::sleep_for(std::min<Clock::duration>(left, backOff(failures)));
            transport_.event = {};
            status = attempt(text);
        }
        // These statuses promise that nothing was done; that is known of the last attempt only.
        const bool unsent = status == WS_STATUS_NO_CONNECT || status == WS_STATUS_TLS;
        return unsent && mayBeDone_ ? uint32_t{WS_STATUS_CUT} : status;
    }

  private:
    uint32_t attempt(kspool::OwnedText& text) {
        long limit = 0;  // for libcurl: no limit
        if (response_.count() > 0) {
            const auto left = std::chrono::duration_cast<milliseconds>(deadline_ - Clock::now());
            limit = std::max<long>(1, std::min(response_, left).count());
        }
        Collector collector;
        detail_[0] = '\0';
        transport_.transmissions = 0;
        setCurl(curl_, CURLOPT_TIMEOUT_MS, limit);
        setCurl(curl_, CURLOPT_HEADERDATA, &collector);
        setCurl(curl_, CURLOPT_WRITEDATA, &collector);
        setCurl(curl_, CURLOPT_ERRORBUFFER, detail_);
        const CURLcode code = curl_easy_perform(curl_);
        if (code != CURLE_OK) shutDownConnections();
        curl_easy_setopt(curl_, CURLOPT_ERRORBUFFER, nullptr);
        httpStatus_ = 0;
        curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, &httpStatus_);
        // A 429 or 503 says that the server did not process the transmission it answers, the last
        // one of the attempt. Earlier ones got no answer and may have been processed.
        const bool turnedAway = httpStatus_ == 429 || httpStatus_ == 503;
        if (transport_.transmissions > (turnedAway ? 1U : 0U)) mayBeDone_ = true;
        const uint32_t status = meaningOf(code, collector, text);
        if (status != CR_STATUS_OK) logFailure(status, code);
        return status;
    }

    /// After a failure libcurl may keep a connection on which a request was sent in part. The next
    /// request would complete it there, and be given the answer to the one before. A connection
    /// that is shut down is found dead and replaced.
    void shutDownConnections() const {
        for (const Socket& one : transport_.sockets)
            if (one.isOurs()) shutdown(one.fd, SHUT_RDWR);
    }

    uint32_t meaningOf(CURLcode code, Collector& collector, kspool::OwnedText& text) {
        if (collector.refusal() != 0) return collector.refusal();
        if (code == CURLE_OK) return collector.judge(httpStatus_, text, transport_.event);
        return meaningOf(code, collector.headIsComplete());
    }

    /// The status of a failure of libcurl, refined by how far the attempt had come.
    uint32_t meaningOf(CURLcode code, bool headIsComplete) const {
        curl_off_t sent = 0, firstByte = 0;
        long proxy = 0;
        curl_easy_getinfo(curl_, CURLINFO_PRETRANSFER_TIME_T, &sent);
        curl_easy_getinfo(curl_, CURLINFO_STARTTRANSFER_TIME_T, &firstByte);
        curl_easy_getinfo(curl_, CURLINFO_HTTP_CONNECTCODE, &proxy);
        if (proxy != 0 && proxy != 200) return WS_STATUS_NO_CONNECT;
        if (code == CURLE_OPERATION_TIMEDOUT && sent == 0) return WS_STATUS_NO_CONNECT;
        // libcurl limits a header line to 100 kB and reports OUT_OF_MEMORY beyond that.
        if (code == CURLE_OUT_OF_MEMORY && firstByte > 0 && !headIsComplete) {
            return WS_STATUS_TOO_LARGE;
        }
        // A broken chunk and a broken connection share a code; only the text tells them apart.
        if (code == CURLE_RECV_ERROR && strstr(detail_, "chunked-enc") != nullptr) {
            return WS_STATUS_BAD_ANSWER;
        }
        // An unlisted failure after the first byte of the answer is a fault of the answer.
        const uint32_t status = ws::meaningOf(code);
        return status == WS_STATUS_FAILED && firstByte > 0 ? uint32_t{WS_STATUS_BAD_ANSWER}
                                                           : status;
    }

    /// Logs the detail that the status does not carry: libcurl's text and the HTTP status.
    void logFailure(uint32_t status, CURLcode code) const {
        const bool ended = code == CURLE_OK || code == CURLE_WRITE_ERROR;
        const char* text = ended              ? CRStatusToStringA(status)
                           : *detail_ != '\0' ? detail_
                                              : curl_easy_strerror(code);
        NoticeA(status, "%s: %s (HTTP status %ld)", transport_.base.c_str(), text, httpStatus_);
    }

    /// True for a connection that could not be made, and for an answer by which the server, or a
    /// gateway before it, asks for patience. An event in such an answer does not change that.
    bool isRetryable(uint32_t status) const {
        if (status == WS_STATUS_NO_CONNECT) return true;
        if (status != CR_STATUS_OK && status != WS_STATUS_BAD_ANSWER) return false;
        return httpStatus_ == 429 || (httpStatus_ >= 502 && httpStatus_ <= 504);
    }

    /// The pause before the next attempt: Retry-After when the server gave one, else exponential
    /// back-off with full jitter, a random part of a span that doubles up to a cap. Clients that a
    /// failing server dropped together would otherwise come back together.
    Clock::duration backOff(unsigned failures) {
        curl_off_t wanted = 0;
        curl_easy_getinfo(curl_, CURLINFO_RETRY_AFTER, &wanted);
        if (httpStatus_ != 0 && wanted > 0) return seconds(wanted);
        const milliseconds most =
            std::min(kBackOffBase * (1U << std::min(failures, 10U)), kBackOffCap);
        // The seed differs between transports, so that their pauses differ as well.
        std::minstd_rand random(static_cast<uint32_t>(transport_.idStart + failures) ^
                                static_cast<uint32_t>(transport_.requests << 8));
        random.discard(1);
        return std::chrono::duration_cast<Clock::duration>(most) * (random() % 1000 + 1) / 1000;
    }

    WSTransport& transport_;
    CURL* curl_;
    const milliseconds response_;
    const milliseconds reconnect_;
    const Clock::time_point deadline_;
    long httpStatus_ = 0;
    bool mayBeDone_ = false;  ///< an attempt may have reached the server and been carried out
    char detail_[CURL_ERROR_SIZE] = "";
};

}  // namespace

uint32_t exchange(WSTransport& transport, const Request& request, kspool::OwnedText& text) {
    if (transport.owner != getpid()) return WS_STATUS_FORKED;
    transport.event = {};
    if (!transport.configured) configure(transport);
    if (transport.unusable != 0) return transport.unusable;
    transport.lastUse = time(nullptr);
    const HeaderList headers = headersFor(transport, request);
    prepare(transport, request, headers.get());
    const uint32_t status = Call(transport).run(text);
    curl_easy_setopt(transport.curl.get(), CURLOPT_HTTPHEADER, nullptr);
    // libcurl repeats a request on a new connection when a reused one is dead, but only five times
    // in the life of a handle, unless it is reset. So a request that needed a new connection has
    // the next one configure, and thereby reset, the handle.
    long connects = 0;
    curl_easy_getinfo(transport.curl.get(), CURLINFO_NUM_CONNECTS, &connects);
    if (connects > 0) transport.configured = false;
    transport.lastUse = time(nullptr);
    return status;
}

}  // namespace ws
