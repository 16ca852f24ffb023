// The transport's stand-in: one attempt of a request.
//
// The easy handle is added to the transport's multi handle, and the caller's thread drives the
// transfer. Between steps the thread waits for the socket, for `wake` (WSAbort) or for the end of
// its time, whichever comes first. libcurl may transmit the request more than once within an
// attempt, when a connection that was kept open turns out to be dead.
//
// Invariants:
//  1. The easy handle is removed from the multi handle at the end, even after an exception.
//  2. After any failure, every socket of the transport is shut down before the handle is removed.
//  3. No wait is longer than the time that is left. With CURLOPT_QUICK_EXIT, that holds during name
//     resolution too: libcurl leaves its resolver thread behind instead of joining it.
//  4. No request is sent on a connection that held unread bytes when the attempt began: they belong
//     to no request, or to one before. libcurl takes such a connection for a live one.
#include "platform/standin/transport/attempt.h"

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <utility>

#include "platform/status.h"

namespace ws {
namespace {

constexpr uint64_t kBytesPerSecond = 64 << 10;  // the slowest transfer that is not ended
constexpr milliseconds kUploadLook{1'000};      // between two looks at an upload

struct Meaning {
    CURLcode code;
    uint32_t status;
};

/// Codes that the oldest supported libcurl does not declare.
constexpr auto kCurlTooLarge = static_cast<CURLcode>(100);
constexpr auto kCurlEchRequired = static_cast<CURLcode>(101);

/// The status of each failure that libcurl reports. One that is not listed is WS_STATUS_FAILED.
constexpr Meaning kMeanings[] = {
    {CURLE_COULDNT_RESOLVE_HOST, WS_STATUS_NO_CONNECT},
    {CURLE_COULDNT_RESOLVE_PROXY, WS_STATUS_NO_CONNECT},
    {CURLE_COULDNT_CONNECT, WS_STATUS_NO_CONNECT},
    {CURLE_PROXY, WS_STATUS_NO_CONNECT},
    {CURLE_OPERATION_TIMEDOUT, WS_STATUS_TIMED_OUT},
    {CURLE_ABORTED_BY_CALLBACK, WS_STATUS_ABORTED},
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
    {kCurlEchRequired, WS_STATUS_TLS},
    {CURLE_UNSUPPORTED_PROTOCOL, WS_STATUS_BAD_ANSWER},
    {CURLE_WEIRD_SERVER_REPLY, WS_STATUS_BAD_ANSWER},
    {CURLE_BAD_CONTENT_ENCODING, WS_STATUS_BAD_ANSWER},
    {CURLE_TOO_MANY_REDIRECTS, WS_STATUS_BAD_ANSWER},
    {CURLE_FILESIZE_EXCEEDED, WS_STATUS_TOO_LARGE},
    {kCurlTooLarge, WS_STATUS_TOO_LARGE},
    {CURLE_OUT_OF_MEMORY, CR_STATUS_NO_MEMORY},
};

uint32_t meaningOf(CURLcode code) {
    const auto* row = std::find_if(std::begin(kMeanings), std::end(kMeanings),
                                   [=](const Meaning& m) { return m.code == code; });
    return row != std::end(kMeanings) ? row->status : uint32_t{WS_STATUS_FAILED};
}

template <typename Number>
Number info(CURL* curl, CURLINFO what) {
    Number number = 0;
    curl_easy_getinfo(curl, what, &number);
    return number;
}

void check(CURLMcode code) {
    if (code == CURLM_OUT_OF_MEMORY) throw std::bad_alloc();
    if (code != CURLM_OK) throw std::runtime_error(curl_multi_strerror(code));
}

/// The easy handle for the next attempt. libcurl before 8.1.1 keeps a dangling pointer to the last
/// header line of a transfer, and follows it when the next answer begins with a continuation line.
/// A copy of the handle has no such pointer.
CURL* freshHandle(WSTransport& transport) {
    constexpr unsigned kMended = 0x080101;
    static const bool isMended = curl_version_info(CURLVERSION_NOW)->version_num >= kMended;
    if (!isMended) {
        std::unique_ptr<CURL, FreeEasy> copy(curl_easy_duphandle(transport.curl.get()));
        if (copy == nullptr) throw std::bad_alloc();
        transport.curl = std::move(copy);
    }
    return transport.curl.get();
}

class Attempt {
  public:
    Attempt(WSTransport& transport, TimeLimit& limit)
        : transport_(transport), curl_(freshHandle(transport)), limit_(limit) {
        transport.transmissions = 0;
        setCurl(curl_, CURLOPT_HEADERDATA, &collector_);
        setCurl(curl_, CURLOPT_WRITEDATA, &collector_);
        setCurl(curl_, CURLOPT_ERRORBUFFER, detail_);
        // libcurl closes the oldest idle connection when it keeps a new one beyond the limit.
        const bool unread = hasUnread();
        setCurl(curl_, CURLOPT_FRESH_CONNECT, long{unread});
        check(curl_multi_setopt(transport.multi.get(), CURLMOPT_MAXCONNECTS, unread ? 1L : 4L));
    }
    ~Attempt() { curl_easy_setopt(curl_, CURLOPT_ERRORBUFFER, nullptr); }
    Attempt(const Attempt&) = delete;
    Attempt& operator=(const Attempt&) = delete;

    Outcome make(kspool::OwnedText& text) {
        const CURLcode code = perform();
        Outcome outcome;
        outcome.httpStatus = info<long>(curl_, CURLINFO_RESPONSE_CODE);
        outcome.status = statusOf(code, outcome.httpStatus, text);
        outcome.mayBeDone = transport_.transmissions > 0 && transport_.event.code == 0;
        outcome.isRetryable = isRetryable(outcome);
        if (outcome.httpStatus != 0) {
            outcome.retryAfter =
                std::chrono::seconds(info<curl_off_t>(curl_, CURLINFO_RETRY_AFTER));
        }
        if (outcome.status != CR_STATUS_OK) logFailure(outcome, code);
        count();
        return outcome;
    }

  private:
    /// Whether a connection has something to read while nothing is asked. The protocol has nothing
    /// that a server says unasked; with TLS, the records that belong to the handshake were read
    /// before the first answer.
    bool hasUnread() const {
        return std::any_of(transport_.sockets.begin(), transport_.sockets.end(),
                           [](const Socket& one) { return one.isOurs() && one.isReadable(); });
    }

    /// Drives the transfer to its end.
    CURLcode perform() {
        CURLM* multi = transport_.multi.get();
        check(curl_multi_add_handle(multi, curl_));
        CURLcode code = CURLE_FAILED_INIT;
        try {
            limit_.restart();
            code = drive(multi);
        } catch (...) {
            leave(multi);
            throw;
        }
        if (code != CURLE_OK) {
            leave(multi);
        } else {
            curl_multi_remove_handle(multi, curl_);
        }
        return code;
    }

    CURLcode drive(CURLM* multi) {
        for (;;) {
            int running = 0;
            check(curl_multi_perform(multi, &running));
            if (running == 0) return resultOf(multi);
            if (transport_.aborted) return CURLE_ABORTED_BY_CALLBACK;
            noteProgress();
            const auto left = std::chrono::ceil<milliseconds>(limit_.left());
            if (left.count() <= 0) return CURLE_OPERATION_TIMEDOUT;
            const auto wait = unacknowledged_ > 0 ? std::min(left, kUploadLook) : left;
            curl_waitfd wake = {transport_.wake.get(), CURL_WAIT_POLLIN, 0};
            check(curl_multi_poll(multi, &wake, 1, static_cast<int>(wait.count()), nullptr));
            if (wake.revents != 0) emptyWake(transport_);
        }
    }

    static CURLcode resultOf(CURLM* multi) {
        int queued = 0;
        const CURLMsg* message = curl_multi_info_read(multi, &queued);
        return message != nullptr ? message->data.result : CURLE_FAILED_INIT;
    }

    /// Ends a failed transfer. libcurl may keep a connection on which part of a request was sent;
    /// the next request would complete the old one there, and receive its answer. libcurl finds a
    /// connection that is shut down dead, and replaces it.
    void leave(CURLM* multi) {
        for (const Socket& one : transport_.sockets)
            if (one.isOurs()) shutdown(one.fd, SHUT_RDWR);
        curl_multi_remove_handle(multi, curl_);
    }

    /// Of the body, what the server's system acknowledged has moved; the rest of what libcurl sent
    /// still waits in buffers of this system. libcurl starts counting anew when it transmits the
    /// request again. Over TLS, more bytes wait than libcurl counts.
    void noteProgress() {
        const auto sent = static_cast<uint64_t>(info<curl_off_t>(curl_, CURLINFO_SIZE_UPLOAD_T));
        if (std::exchange(sent_, sent) > sent) progress_ = 0;
        unacknowledged_ = 0;
        for (const Socket& one : transport_.sockets)
            if (one.isOurs()) unacknowledged_ += one.unacknowledged();
        const uint64_t now = collector_.received() + sent - std::min(sent, unacknowledged_);
        if (now <= progress_) return;
        limit_.moved(now - progress_);
        progress_ = now;
    }

    uint32_t statusOf(CURLcode code, long httpStatus, kspool::OwnedText& text) {
        if (collector_.refusal() != 0) return collector_.refusal();
        if (code == CURLE_OK) return collector_.judge(httpStatus, text, transport_.event);
        const long proxy = info<long>(curl_, CURLINFO_HTTP_CONNECTCODE);
        if (proxy != 0 && proxy != 200) return WS_STATUS_NO_CONNECT;
        if (code == CURLE_OPERATION_TIMEDOUT && transport_.transmissions == 0)
            return WS_STATUS_CONNECT_TIMED_OUT;
        if (info<curl_off_t>(curl_, CURLINFO_STARTTRANSFER_TIME_T) > 0)
            return statusWithinAnswer(code);
        return meaningOf(code);
    }

    /// The status of a failure after the first byte of the answer.
    uint32_t statusWithinAnswer(CURLcode code) const {
        // libcurl limits a header line to 100 kB and reports OUT_OF_MEMORY beyond that.
        if (code == CURLE_OUT_OF_MEMORY) return WS_STATUS_TOO_LARGE;
        // An invalid chunk and a broken connection share a code. Without a system error it was the
        // chunk. Over TLS the two look alike, since the TLS library may not pass the error on.
        const bool system = info<long>(curl_, CURLINFO_OS_ERRNO) != transport_.connectErrno;
        if (code == CURLE_RECV_ERROR && collector_.isChunked() && !system && !transport_.isTls)
            return WS_STATUS_BAD_ANSWER;
        const uint32_t status = meaningOf(code);
        return status == WS_STATUS_FAILED ? uint32_t{WS_STATUS_BAD_ANSWER} : status;
    }

    /// True when no connection could be made, and for an answer by which the server, or a gateway
    /// before it, asks to retry later, whether the answer contains an event or not.
    static bool isRetryable(const Outcome& outcome) {
        if (outcome.status == WS_STATUS_NO_CONNECT) return true;
        if (outcome.status == WS_STATUS_CONNECT_TIMED_OUT) return true;
        if (outcome.status != CR_STATUS_OK && outcome.status != WS_STATUS_BAD_ANSWER) return false;
        return outcome.httpStatus == 429 ||
               (outcome.httpStatus >= 502 && outcome.httpStatus <= 504);
    }

    /// Logs the detail that the status does not carry: libcurl's text and the HTTP status.
    void logFailure(const Outcome& outcome, CURLcode code) const {
        const bool own = code == CURLE_OK || code == CURLE_WRITE_ERROR || *detail_ == '\0';
        NoticeA(outcome.status, "%s: %s (HTTP status %ld)", transport_.base.c_str(),
                own ? CRStatusToStringA(outcome.status) : detail_, outcome.httpStatus);
    }

    /// libcurl counts a body that it sends along with the head, which it does with short ones, as
    /// part of the request and as upload.
    uint64_t bytesSent() const {
        const auto request = static_cast<uint64_t>(info<long>(curl_, CURLINFO_REQUEST_SIZE));
        const auto body = static_cast<uint64_t>(info<curl_off_t>(curl_, CURLINFO_SIZE_UPLOAD_T));
        return request > body ? request : request + body;
    }

    void count() {
        WSStatisticsRecord& statistics = transport_.statistics;
        ++statistics.attempts;
        statistics.connections += static_cast<uint64_t>(info<long>(curl_, CURLINFO_NUM_CONNECTS));
        statistics.bytesSent += bytesSent();
        statistics.bytesReceived += collector_.received();
    }

    WSTransport& transport_;
    CURL* curl_;
    TimeLimit& limit_;
    Collector collector_;
    uint64_t sent_ = 0;            ///< bytes of the body that libcurl sent
    uint64_t unacknowledged_ = 0;  ///< bytes that wait for the server's system
    uint64_t progress_ = 0;        ///< bytes that moved
    char detail_[CURL_ERROR_SIZE] = "";
};

}  // namespace

bool Socket::isReadable() const noexcept {
    pollfd one = {fd, POLLIN, 0};
    return poll(&one, 1, 0) != 0;
}

uint64_t Socket::unacknowledged() const noexcept {
    int bytes = 0;
    return ioctl(fd, SIOCOUTQ, &bytes) == 0 && bytes > 0 ? static_cast<uint64_t>(bytes) : 0;
}

void TimeLimit::moved(uint64_t bytes) {
    lastMove_ = Clock::now();
    unpaid_ += bytes;
    end_ += std::chrono::seconds(unpaid_ / kBytesPerSecond);
    unpaid_ %= kBytesPerSecond;
}

Clock::duration TimeLimit::left() const {
    constexpr Clock::duration kLongestWait = std::chrono::minutes(1);
    if (response_.count() == 0) return kLongestWait;
    return std::min(std::min(end_, lastMove_ + response_) - Clock::now(), kLongestWait);
}

Outcome attempt(WSTransport& transport, TimeLimit& limit, kspool::OwnedText& text) {
    return Attempt(transport, limit).make(text);
}

void emptyWake(const WSTransport& transport) {
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t got = read(transport.wake.get(), &count, sizeof count);
}

void forgetAborts(WSTransport& transport) {
    if (transport.aborted.exchange(false)) emptyWake(transport);
}

}  // namespace ws
