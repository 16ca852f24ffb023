// The transport as its own files see it: what was set, what is sent, what came back.
#ifndef PLATFORM_STANDIN_TRANSPORT_TRANSPORT_H
#define PLATFORM_STANDIN_TRANSPORT_TRANSPORT_H

#include <curl/curl.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "cr_status.h"
#include "platform/support.h"
#include "platform/ws.h"

namespace ws {

/// A text that is wiped when it goes.
class Secret {
  public:
    Secret() = default;
    Secret(const Secret& other) : text_(other.text_) {}
    Secret& operator=(const Secret&) = delete;
    ~Secret() { wipe(); }
    void set(const char* text);
    void swap(Secret& other) noexcept { text_.swap(other.text_); }
    const std::string& text() const { return text_; }

  private:
    void wipe() noexcept;
    std::string text_;
};

/// What WSSetOpt() sets. Empty texts are not set; all are kept as carefully as the one that needs
/// it.
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
struct FreeList {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
struct FreeText {
    void operator()(char* text) const { free(text); }
};
struct FreeCurlText {
    void operator()(char* text) const { curl_free(text); }
};
using HeaderList = std::unique_ptr<curl_slist, FreeList>;
using Text = std::unique_ptr<char, FreeText>;

/// One request as it is sent, perhaps more than once.
struct Request {
    const char* path;         ///< below the server URL, with its query
    const char* contentType;  ///< NULL: a GET
    const char* body;
    size_t bodySize;
};

/// What is known of an event beside its code. Empty texts are not known.
struct Event {
    uint32_t code = 0;
    std::string severity, serverAddress, sourceApplication, description;
};

/// Takes one answer in while it arrives, and says afterwards what it is.
class Collector {
  public:
    /// Both return what they were given, or less to end the transfer.
    size_t header(const char* line, size_t length) noexcept;
    size_t body(const char* bytes, size_t length) noexcept;

    /// Why the transfer was ended from here, or 0.
    uint32_t refusal() const { return refusal_; }
    bool headIsComplete() const { return headIsComplete_; }

    /// The status of an answer that arrived whole: 0 with `text` or `event` filled, or a failure.
    uint32_t judge(long httpStatus, Text& text, Event& event);

  private:
    void takeLength(std::string_view text) noexcept;
    bool grow(size_t length) noexcept;
    uint32_t judgeProblem(Event& event) const;

    enum class Content : uint8_t { kOther, kPlainText, kProblem };

    size_t headerBytes_ = 0;
    Content content_ = Content::kOther;
    bool headIsComplete_ = false;
    bool isChunked_ = false;
    bool hasLength_ = false;
    uint64_t length_ = 0;
    uint32_t refusal_ = 0;
    Text text_;
    size_t size_ = 0;
    size_t capacity_ = 0;
};

uint64_t answerLimit() noexcept;

/// A socket of ours. libcurl closes some without telling, so that a descriptor alone may be another
/// one's by now.
struct Socket {
    curl_socket_t fd;
    ino_t inode;

    bool isOurs() const noexcept {
        struct stat status {};
        return fstat(fd, &status) == 0 && S_ISSOCK(status.st_mode) && status.st_ino == inode;
    }
};

}  // namespace ws

struct WSTransport {
    std::unique_ptr<CURL, ws::FreeEasy> curl;
    pid_t owner = 0;
    std::vector<ws::Socket> sockets;  ///< opened and not closed by a callback
    ws::Settings settings;
    bool configured = false;  ///< `curl` has been given `settings`
    uint32_t unusable = 0;    ///< why no request can be sent with them, or 0
    std::string base;         ///< the server URL without a slash at its end
    size_t pathStart = 0;     ///< where the path begins in it; 0: a proxy wants the whole URL
    int64_t lastUse = 0;
    uint64_t idStart = 0;  ///< request ids: this and a count
    uint64_t requests = 0;
    bool archKnown = false;
    uint32_t archMode = 0;
    unsigned sendings = 0;  ///< how often libcurl began to send the request, in one attempt
    ws::Event event;        ///< keeps the texts of the last result alive
};

namespace ws {

/// Sends a request, again while the reconnect time-out allows, and brings what came of it.
uint32_t exchange(WSTransport& transport, const Request& request, Text& text);

}  // namespace ws

#endif
