// The transport's stand-in: how libcurl is set up, and how a request is sent and sent again.
#include <arpa/inet.h>
#include <strings.h>
#include <sys/stat.h>
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

constexpr long kConnectTimeoutMs = 10'000;
constexpr int64_t kLongestTimeout = 86'400;
constexpr milliseconds kFirstPause{100};
constexpr milliseconds kLongestPause{5'000};

struct Meaning {
    CURLcode code;
    uint32_t status;
};

/// What libcurl's failures come to. All others are the transport's own.
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

bool isLoopback(std::string host) {
    if (host.size() > 2 && host.front() == '[') host = host.substr(1, host.size() - 2);
    in_addr v4;
    in6_addr v6;
    if (inet_pton(AF_INET, host.c_str(), &v4) == 1) return ntohl(v4.s_addr) >> 24 == 127;
    if (inet_pton(AF_INET6, host.c_str(), &v6) == 1) return IN6_IS_ADDR_LOOPBACK(&v6);
    return strcasecmp(host.c_str(), "localhost") == 0;
}

struct FreeUrl {
    void operator()(CURLU* url) const { curl_url_cleanup(url); }
};

/// Whether it is so, when there was the memory to tell.
bool isDone(CURLUcode code) {
    if (code == CURLUE_OUT_OF_MEMORY) throw std::bad_alloc();
    return code == CURLUE_OK;
}

std::string partOf(CURLU* url, CURLUPart part) {
    char* text = nullptr;
    if (!isDone(curl_url_get(url, part, &text, 0))) return {};
    const std::unique_ptr<char, FreeCurlText> owned(text);
    return text;
}

/// Where requests go, and whether they may. Returns why they cannot, or 0.
uint32_t readServerUrl(WSTransport& transport, bool& loopback) {
    const std::string& text = transport.settings.serverUrl.text();
    if (text.empty()) return WS_STATUS_NO_SERVER;
    const std::unique_ptr<CURLU, FreeUrl> url(curl_url());
    if (url == nullptr) throw std::bad_alloc();
    if (!isDone(curl_url_set(url.get(), CURLUPART_URL, text.c_str(), 0)))
        return WS_STATUS_NO_SERVER;
    const std::string scheme = partOf(url.get(), CURLUPART_SCHEME);
    if (scheme != "http" && scheme != "https") return WS_STATUS_NO_SERVER;
    // A password in a URL would end up in logs; queries and fragments have no place in a base.
    if (text.find_first_of("?#") != std::string::npos) return WS_STATUS_NO_SERVER;
    for (const CURLUPart part : {CURLUPART_USER, CURLUPART_PASSWORD}) {
        if (!partOf(url.get(), part).empty()) return WS_STATUS_NO_SERVER;
    }
    loopback = isLoopback(partOf(url.get(), CURLUPART_HOST));
    const char* allowed = getenv("KSPOOL_ALLOW_PLAINTEXT");
    if (scheme == "http" && !loopback && (allowed == nullptr || strcmp(allowed, "1") != 0)) {
        return WS_STATUS_PLAINTEXT;
    }
    transport.base = text.substr(0, text.find_last_not_of('/') + 1);
    const bool direct = scheme == "https" || loopback;
    const size_t host = transport.base.find("://") + 3;
    transport.pathStart =
        direct ? std::min(transport.base.find('/', host), transport.base.size()) : 0;
    return CR_STATUS_OK;
}

size_t onHeader(char* line, size_t, size_t length, void* collector) {
    return static_cast<Collector*>(collector)->header(line, length);
}

size_t onBody(char* bytes, size_t, size_t length, void* collector) {
    return static_cast<Collector*>(collector)->body(bytes, length);
}

curl_socket_t onOpen(void* transport, curlsocktype, curl_sockaddr* address) {
    const curl_socket_t opened =
        socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
    struct stat status {};
    if (opened == CURL_SOCKET_BAD || fstat(opened, &status) != 0) return opened;
    try {
        static_cast<WSTransport*>(transport)->sockets.push_back({opened, status.st_ino});
    } catch (const std::exception&) {
        close(opened);
        return CURL_SOCKET_BAD;
    }
    return opened;
}

int onClose(void* transport, curl_socket_t closed) {
    std::erase_if(static_cast<WSTransport*>(transport)->sockets,
                  [=](const Socket& one) { return one.fd == closed; });
    return close(closed);
}

/// Called before each sending: libcurl may repeat a request by itself.
int onSend(void* transport, char*, char*, int, int) {
    ++static_cast<WSTransport*>(transport)->sendings;
    return CURL_PREREQFUNC_OK;
}

/// An option that could not be set would change what is sent, or whom it is sent to.
template <typename Value>
void set(CURL* curl, CURLoption option, Value value) {
    if (curl_easy_setopt(curl, option, value) != CURLE_OK) throw std::bad_alloc();
}

void setKeys(CURL* curl, const std::string& location) {
    struct stat status {};
    set(curl, CURLOPT_KEYPASSWD, "");  // a key that wants one is of no use; nobody is to be asked
    if (location.empty()) return;
    if (stat(location.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        set(curl, CURLOPT_SSLCERT, location.c_str());
        set(curl, CURLOPT_SSLKEY, location.c_str());
        return;
    }
    // Those of the system are not trusted beside it, and it is read at each connection.
    set(curl, CURLOPT_CAPATH, static_cast<char*>(nullptr));
    set(curl, CURLOPT_CA_CACHE_TIMEOUT, 0L);
    set(curl, CURLOPT_CAINFO, (location + "/ca.pem").c_str());
    set(curl, CURLOPT_SSLCERT, (location + "/cert.pem").c_str());
    set(curl, CURLOPT_SSLKEY, (location + "/key.pem").c_str());
}

/// Gives libcurl all that is the same for each request. The open connection survives it.
void configure(WSTransport& transport) {
    CURL* curl = transport.curl.get();
    const Settings& s = transport.settings;
    bool loopback = false;
    curl_easy_reset(curl);
    transport.unusable = readServerUrl(transport, loopback);
    set(curl, CURLOPT_NOSIGNAL, 1L);
    set(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    set(curl, CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1});
    set(curl, CURLOPT_FOLLOWLOCATION, 0L);
    set(curl, CURLOPT_SSLVERSION, long{CURL_SSLVERSION_TLSv1_2});
    set(curl, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
    set(curl, CURLOPT_NETRC, long{CURL_NETRC_IGNORED});
    set(curl, CURLOPT_CONNECTTIMEOUT_MS, kConnectTimeoutMs);
    set(curl, CURLOPT_TCP_KEEPALIVE, 1L);
    set(curl, CURLOPT_USERAGENT, "kspool");
    if (loopback) set(curl, CURLOPT_NOPROXY, "*");
    setKeys(curl, s.keyLocation.text());
    if (!s.login.text().empty()) {
        set(curl, CURLOPT_HTTPAUTH, long{CURLAUTH_BASIC});
        set(curl, CURLOPT_USERNAME, s.login.text().c_str());
        set(curl, CURLOPT_PASSWORD, s.password.text().c_str());
    }
    set(curl, CURLOPT_OPENSOCKETFUNCTION, onOpen);
    set(curl, CURLOPT_OPENSOCKETDATA, &transport);
    set(curl, CURLOPT_CLOSESOCKETFUNCTION, onClose);
    set(curl, CURLOPT_CLOSESOCKETDATA, &transport);
    set(curl, CURLOPT_PREREQFUNCTION, onSend);
    set(curl, CURLOPT_PREREQDATA, &transport);
    set(curl, CURLOPT_HEADERFUNCTION, onHeader);
    set(curl, CURLOPT_WRITEFUNCTION, onBody);
    transport.configured = true;
}

void addHeader(HeaderList& list, const std::string& line) {
    curl_slist* longer = curl_slist_append(list.get(), line.c_str());
    if (longer == nullptr) throw std::bad_alloc();
    [[maybe_unused]] curl_slist* same = list.release();
    list.reset(longer);
}

/// Each request has an id of its own, which all its repetitions carry.
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

/// Gives libcurl what is this request's own.
void prepare(WSTransport& transport, const Request& request, const curl_slist* headers) {
    CURL* curl = transport.curl.get();
    const std::string url = transport.base + request.path;
    set(curl, CURLOPT_URL, url.c_str());
    // Without memory for the query, libcurl would send the request without it.
    if (transport.pathStart != 0)
        set(curl, CURLOPT_REQUEST_TARGET, url.c_str() + transport.pathStart);
    set(curl, CURLOPT_HTTPHEADER, headers);
    if (request.contentType == nullptr) {
        set(curl, CURLOPT_HTTPGET, 1L);
    } else {
        set(curl, CURLOPT_POSTFIELDS, request.body);
        set(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.bodySize));
        set(curl, CURLOPT_POST, 1L);
    }
}

milliseconds seconds(int64_t count) {
    return std::chrono::seconds(std::clamp<int64_t>(count, 0, kLongestTimeout));
}

/// One call: its attempts, and the time they have.
class Call {
  public:
    explicit Call(WSTransport& transport)
        : transport_(transport),
          curl_(transport.curl.get()),
          response_(seconds(transport.settings.responseTimeout)),
          reconnect_(seconds(transport.settings.reconnectTimeout)),
          deadline_(Clock::now() + reconnect_ + response_) {}

    uint32_t run(Text& text) {
        uint32_t status = attempt(text);
        const auto firstFailure = Clock::now();
        for (unsigned failures = 1; canTryAgain(status); ++failures) {
            const auto left = reconnect_ - (Clock::now() - firstFailure);
            if (left <= Clock::duration::zero()) break;
            std::this_thread::sleep_for(std::min<Clock::duration>(left, pauseAfter(failures)));
            transport_.event = {};
            status = attempt(text);
        }
        // Those two say that nothing was done, which holds for the last sending alone.
        const bool unsent = status == WS_STATUS_NO_CONNECT || status == WS_STATUS_TLS;
        return unsent && mayBeDone_ ? uint32_t{WS_STATUS_CUT} : status;
    }

  private:
    uint32_t attempt(Text& text) {
        long limit = 0;  // none
        if (response_.count() > 0) {
            const auto left = std::chrono::duration_cast<milliseconds>(deadline_ - Clock::now());
            limit = std::max<long>(1, std::min(response_, left).count());
        }
        Collector collector;
        detail_[0] = '\0';
        transport_.sendings = 0;
        set(curl_, CURLOPT_TIMEOUT_MS, limit);
        set(curl_, CURLOPT_HEADERDATA, &collector);
        set(curl_, CURLOPT_WRITEDATA, &collector);
        set(curl_, CURLOPT_ERRORBUFFER, detail_);
        const CURLcode code = curl_easy_perform(curl_);
        if (code != CURLE_OK) endConnections();
        curl_easy_setopt(curl_, CURLOPT_ERRORBUFFER, nullptr);
        httpStatus_ = 0;
        curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, &httpStatus_);
        const bool turnedAway = httpStatus_ == 429 || httpStatus_ == 503;
        if (transport_.sendings > (turnedAway ? 1U : 0U)) mayBeDone_ = true;
        const uint32_t status = meaningOf(code, collector, text);
        if (status != CR_STATUS_OK) explain(status, code);
        return status;
    }

    /// libcurl keeps a connection on which it could send a part of a request only. The rest would
    /// go out with the next one, whose answer would then be this one's.
    void endConnections() const {
        for (const Socket& one : transport_.sockets)
            if (one.isOurs()) shutdown(one.fd, SHUT_RDWR);
    }

    uint32_t meaningOf(CURLcode code, Collector& collector, Text& text) {
        if (collector.refusal() != 0) return collector.refusal();
        if (code == CURLE_OK) return collector.judge(httpStatus_, text, transport_.event);
        return meaningOf(code, collector.headIsComplete());
    }

    /// What a failure of libcurl comes to, by how far the request had come.
    uint32_t meaningOf(CURLcode code, bool headIsComplete) const {
        curl_off_t sent = 0, firstByte = 0;
        long proxy = 0;
        curl_easy_getinfo(curl_, CURLINFO_PRETRANSFER_TIME_T, &sent);
        curl_easy_getinfo(curl_, CURLINFO_STARTTRANSFER_TIME_T, &firstByte);
        curl_easy_getinfo(curl_, CURLINFO_HTTP_CONNECTCODE, &proxy);
        if (proxy != 0 && proxy != 200) return WS_STATUS_NO_CONNECT;
        if (code == CURLE_OPERATION_TIMEDOUT && sent == 0) return WS_STATUS_NO_CONNECT;
        // It holds 100 kB of one header line, and says that memory is out when it gets more.
        if (code == CURLE_OUT_OF_MEMORY && firstByte > 0 && !headIsComplete) {
            return WS_STATUS_TOO_LARGE;
        }
        if (code == CURLE_RECV_ERROR && strstr(detail_, "chunked-enc") != nullptr) {
            return WS_STATUS_BAD_ANSWER;
        }
        const uint32_t status = ws::meaningOf(code);
        return status == WS_STATUS_FAILED && firstByte > 0 ? uint32_t{WS_STATUS_BAD_ANSWER}
                                                           : status;
    }

    /// Tells the log what the status alone does not.
    void explain(uint32_t status, CURLcode code) const {
        const bool ended = code == CURLE_OK || code == CURLE_WRITE_ERROR;
        const char* text = ended              ? CRStatusToStringA(status)
                           : *detail_ != '\0' ? detail_
                                              : curl_easy_strerror(code);
        NoticeA(status, "%s: %s (HTTP status %ld)", transport_.base.c_str(), text, httpStatus_);
    }

    bool canTryAgain(uint32_t status) const {
        if (status == WS_STATUS_NO_CONNECT) return true;
        if (status != CR_STATUS_OK && status != WS_STATUS_BAD_ANSWER) return false;
        return httpStatus_ == 429 || (httpStatus_ >= 502 && httpStatus_ <= 504);
    }

    /// What the server asked for, or a random part of a time that doubles.
    Clock::duration pauseAfter(unsigned failures) {
        curl_off_t wanted = 0;
        curl_easy_getinfo(curl_, CURLINFO_RETRY_AFTER, &wanted);
        if (httpStatus_ != 0 && wanted > 0) return seconds(wanted);
        const milliseconds most =
            std::min(kFirstPause * (1U << std::min(failures, 10U)), kLongestPause);
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
    bool mayBeDone_ = false;  ///< a sending went out of which the server did not say that it waits
    char detail_[CURL_ERROR_SIZE] = "";
};

}  // namespace

uint32_t exchange(WSTransport& transport, const Request& request, Text& text) {
    if (transport.owner != getpid()) return WS_STATUS_FORKED;
    transport.event = {};
    if (!transport.configured) configure(transport);
    if (transport.unusable != 0) return transport.unusable;
    transport.lastUse = time(nullptr);
    const HeaderList headers = headersFor(transport, request);
    prepare(transport, request, headers.get());
    const uint32_t status = Call(transport).run(text);
    curl_easy_setopt(transport.curl.get(), CURLOPT_HTTPHEADER, nullptr);
    // libcurl counts how often it repeated a request over the life of its handle and does so five
    // times only; being set up anew it forgets. It repeats on a new connection.
    long connects = 0;
    curl_easy_getinfo(transport.curl.get(), CURLINFO_NUM_CONNECTS, &connects);
    if (connects > 0) transport.configured = false;
    transport.lastUse = time(nullptr);
    return status;
}

}  // namespace ws
