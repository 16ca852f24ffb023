// The transport's internals: settings, one request, one answer, and the record that ties them
// together. docs/internals/transport.md follows a request through these files.
#ifndef PLATFORM_STANDIN_TRANSPORT_TRANSPORT_H
#define PLATFORM_STANDIN_TRANSPORT_TRANSPORT_H

#include <curl/curl.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "common/owned.h"
#include "common/secret.h"
#include "cr_status.h"
#include "platform/support.h"
#include "platform/ws.h"

namespace ws {

/// The longest text of an option is 4095 characters.
using Secret = kspool::SecretText<4095>;

/// The values of the options that WSSetOpt() sets; times are in seconds. An empty text means that
/// the option is not set. All texts are wiped, although only login and password must be.
struct Settings {
    Secret serverUrl;
    Secret login;
    Secret password;
    Secret keyLocation;
    int64_t option7 = 0;
    int64_t option8 = 0;
    int64_t responseTimeout = 30;
    int64_t reconnectTimeout = 0;
};

struct FreeEasy {
    void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
};
struct FreeMulti {
    void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
};
struct FreeList {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
struct FreeCurlText {
    void operator()(char* text) const { curl_free(text); }
};
using HeaderList = std::unique_ptr<curl_slist, FreeList>;

/// One request. All its attempts send the same bytes.
struct Request {
    const char* path;         ///< below the server URL, with its query
    const char* contentType;  ///< NULL: a GET
    const char* body;
    size_t bodySize;
};

/// An event that the server reported. Texts that the server left out are empty.
struct Event {
    uint32_t code = 0;
    std::string severity, serverAddress, sourceApplication, description;
};

/// What is known of the last request besides its event.
struct Trace {
    uint32_t httpStatus = 0;  ///< of the last answer; 0 without one
    uint32_t attempts = 0;
    std::string id;  ///< its Request-Id
};

/// Receives the answer to one attempt and validates it. libcurl accepts more than the protocol
/// allows (repeated lengths, other transfer codings, bodies that end with the connection), so the
/// header lines are parsed here as well.
///
/// Invariants:
///  1. Once `refusal_` is set, the callbacks return 0, which ends the transfer.
///  2. `text_` has `capacity_` bytes, of which `size_` are filled; unless both are 0, there is room
///     for a NUL after them.
///  3. Header members describe the answer of the last status line. Interim answers (1xx) are
///     forgotten, but their bytes count for the limit.
class Collector {
  public:
    /// The callbacks of libcurl. Both return `length`, or less to end the transfer.
    size_t header(const char* line, size_t length) noexcept;
    size_t body(const char* bytes, size_t length) noexcept;

    /// The status with which a callback has ended the transfer, or 0.
    uint32_t refusal() const { return refusal_; }
    bool isChunked() const { return isChunked_; }
    /// Bytes of head and body so far.
    uint64_t received() const { return headerBytes_ + size_; }

    /// The status of a complete answer: 0 with `text` or `event` filled, or a failure.
    uint32_t judge(long httpStatus, kspool::OwnedText& text, Event& event);

  private:
    void takeLength(std::string_view text) noexcept;
    bool grow(size_t length) noexcept;
    uint32_t judgeProblem(Event& event) const;

    enum class Content : uint8_t { kOther, kPlainText, kProblem };

    size_t headerBytes_ = 0;
    Content content_ = Content::kOther;
    bool mayBegin_ = true;  ///< a status line is allowed: at first, and after an interim answer
    bool isInterim_ = false;
    bool headIsComplete_ = false;
    bool isChunked_ = false;
    bool hasLength_ = false;
    uint64_t length_ = 0;
    uint32_t refusal_ = 0;
    kspool::OwnedText text_;
    size_t size_ = 0;
    size_t capacity_ = 0;
};

uint64_t answerLimit() noexcept;

/// A socket that the transport opened. libcurl closes some sockets without calling onClose(); the
/// program may then get the same descriptor number, and the inode tells the two apart.
struct Socket {
    curl_socket_t fd;
    ino_t inode;

    bool isOurs() const noexcept {
        struct stat status {};
        return fstat(fd, &status) == 0 && S_ISSOCK(status.st_mode) && status.st_ino == inode;
    }

    /// True when there is something to read: bytes, the end of the connection or an error.
    bool isReadable() const noexcept;

    /// The bytes that were sent and are not yet acknowledged by the peer's system.
    uint64_t unacknowledged() const noexcept;
};

}  // namespace ws

// A transport: one libcurl easy handle, or a copy of it, for every request; the multi handle that
// drives it and keeps the connection; and the state around them.
//
// Thread rule: one thread at a time per transport, without locks. The exception is WSAbort(), which
// any thread or signal handler may call: it uses only `aborted` (lock-free), `wake` and `owner`.
// Process-wide state is libcurl's own, initialised once, and the answer limit, which is atomic.
//
// Invariants:
//  1. Only the process `owner` sends. In a child, requests return WS_STATUS_FORKED and WSShutdown()
//     sends nothing, not even a TLS close_notify: either would corrupt the parent's connection.
//  2. While `configured` is false, `settings` may be newer than the options of `curl`; the next
//     request calls configure() first. `unusable`, `base` and `pathStart` belong to the last
//     configure().
//  3. While `unusable` is not 0, requests return it, and nothing is sent.
//  4. No two requests share an id: `idStart` is random per transport, `requests` only grows. All
//     attempts of one request carry the same id.
//  5. `sockets` names every open socket of `curl`. It may also name closed ones: see Socket.
//  6. Pointers in `curl` to objects of a finished call (body, collector) are dangling; each attempt
//     replaces them before `curl` is added to `multi`.
//  7. `archKnown` implies that `archMode` is that of `settings.serverUrl`.
//  8. `event` and `trace` belong to the last request and own the texts that its WSResult and
//     WSLastEvent() point to; the next request clears both.
//  9. `curl` is in `multi` only during an attempt. The connections belong to `multi`.
// 10. `aborted` is false when a new request begins. `wake` may still be signalled by an earlier
//     abort, which only ends one wait early.
struct WSTransport {
    std::unique_ptr<CURL, ws::FreeEasy> curl;
    std::unique_ptr<CURLM, ws::FreeMulti> multi;
    kspool::Descriptor wake{-1};  ///< an eventfd, which ends a wait
    std::atomic<bool> aborted = false;
    static_assert(std::atomic<bool>::is_always_lock_free);
    pid_t owner = 0;
    std::vector<ws::Socket> sockets;
    ws::Settings settings;
    bool configured = false;
    uint32_t unusable = 0;  ///< the status of the server URL: 0 when it can be used
    std::string base;       ///< the server URL as libcurl reads it, without a slash at its end
    std::string path;       ///< its path, without a slash at its end
    bool isTls = false;     ///< its scheme is https
    int64_t lastUse = 0;
    uint64_t idStart = 0;
    uint64_t requests = 0;
    bool archKnown = false;
    uint32_t archMode = 0;
    unsigned transmissions = 0;  ///< how often libcurl began to send within the current attempt
    long connectErrno = 0;  ///< OS errno of a failed address, which libcurl keeps after connecting
    ws::Event event;
    ws::Trace trace;
    WSStatisticsRecord statistics{};
};

namespace ws {

/// Sets one libcurl option. A failure ends the request: without the option, other bytes could be
/// sent, or to another host. Throws bad_alloc for lack of memory, and runtime_error for an option
/// that this libcurl does not support.
template <typename Value>
void setCurl(CURL* curl, CURLoption option, Value value) {
    const CURLcode code = curl_easy_setopt(curl, option, value);
    if (code == CURLE_OUT_OF_MEMORY) throw std::bad_alloc();
    if (code != CURLE_OK) throw std::runtime_error(curl_easy_strerror(code));
}

inline const char* nullIfEmpty(const std::string& text) {
    return text.empty() ? nullptr : text.c_str();
}

/// The status for the exception being handled. REQUIRES: called in a catch block.
uint32_t statusOfException() noexcept;

/// Sets all libcurl options that are the same for every request. The open connection is kept.
void configure(WSTransport& transport);

/// Sends a request, with retries while the reconnect time-out allows. Returns its status.
uint32_t exchange(WSTransport& transport, const Request& request, kspool::OwnedText& text);

}  // namespace ws

#endif
