// The transport's stand-in: the options that every request shares. The server URL is checked, and
// libcurl is told how to connect, whom to trust and which sockets to use.
#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "common/ascii.h"
#include "platform/standin/transport/transport.h"

namespace ws {
namespace {

constexpr long kConnectTimeoutMs = 10'000;

bool isLoopback(std::string host) {
    if (host.size() > 2 && host.front() == '[') host = host.substr(1, host.size() - 2);
    in_addr v4;
    in6_addr v6;
    if (inet_pton(AF_INET, host.c_str(), &v4) == 1) return ntohl(v4.s_addr) >> 24 == 127;
    if (inet_pton(AF_INET6, host.c_str(), &v6) == 1) return IN6_IS_ADDR_LOOPBACK(&v6);
    return kspool::sameText(host, "localhost");
}

struct FreeUrl {
    void operator()(CURLU* url) const { curl_url_cleanup(url); }
};

/// True on CURLUE_OK; throws bad_alloc when libcurl is out of memory.
bool isOk(CURLUcode code) {
    if (code == CURLUE_OUT_OF_MEMORY) throw std::bad_alloc();
    return code == CURLUE_OK;
}

std::string partOf(CURLU* url, CURLUPart part) {
    char* text = nullptr;
    if (!isOk(curl_url_get(url, part, &text, 0))) return {};
    const std::unique_ptr<char, FreeCurlText> owned(text);
    return text;
}

/// Checks the server URL and fills `base` and `pathStart`. Returns 0, or the status that every
/// request with this URL gets.
uint32_t readServerUrl(WSTransport& transport, bool& loopback) {
    const std::string& text = transport.settings.serverUrl.text();
    if (text.empty()) return WS_STATUS_NO_SERVER;
    const std::unique_ptr<CURLU, FreeUrl> url(curl_url());
    if (url == nullptr) throw std::bad_alloc();
    if (!isOk(curl_url_set(url.get(), CURLUPART_URL, text.c_str(), 0))) return WS_STATUS_NO_SERVER;
    const std::string scheme = partOf(url.get(), CURLUPART_SCHEME);
    if (scheme != "http" && scheme != "https") return WS_STATUS_NO_SERVER;
    // Paths are appended to the text, which a query or a fragment would swallow.
    if (text.find_first_of("?#") != std::string::npos) return WS_STATUS_NO_SERVER;
    // The URL is logged with each failure, and a password in it would be as well.
    for (const CURLUPart part : {CURLUPART_USER, CURLUPART_PASSWORD}) {
        if (!partOf(url.get(), part).empty()) return WS_STATUS_NO_SERVER;
    }
    loopback = isLoopback(partOf(url.get(), CURLUPART_HOST));
    const char* allowed = getenv("KSPOOL_ALLOW_PLAINTEXT");
    if (scheme == "http" && !loopback && (allowed == nullptr || strcmp(allowed, "1") != 0)) {
        return WS_STATUS_PLAINTEXT;
    }
    transport.base = text.substr(0, text.find_last_not_of('/') + 1);
    // Plain http to another host may go through a proxy, whose request line has the whole URL.
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

/// Opens a socket and lists it: a child of the process has to find them all at WSShutdown().
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

/// Called when a connection is ready, just before the request goes out on it. More than one call
/// within an attempt means that libcurl repeated the request by itself.
int onTransmission(void* transport, char*, char*, int, int) {
    ++static_cast<WSTransport*>(transport)->transmissions;
    return CURL_PREREQFUNC_OK;
}

void setKeys(CURL* curl, const std::string& location) {
    struct stat status {};
    // Never prompt: encrypted keys are not supported.
    setCurl(curl, CURLOPT_KEYPASSWD, "");
    if (location.empty()) return;
    if (stat(location.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        setCurl(curl, CURLOPT_SSLCERT, location.c_str());
        setCurl(curl, CURLOPT_SSLKEY, location.c_str());
        return;
    }
    // Trust only ca.pem, not the system store; reload it for each connection.
    setCurl(curl, CURLOPT_CAPATH, static_cast<char*>(nullptr));
    setCurl(curl, CURLOPT_CA_CACHE_TIMEOUT, 0L);
    setCurl(curl, CURLOPT_CAINFO, (location + "/ca.pem").c_str());
    setCurl(curl, CURLOPT_SSLCERT, (location + "/cert.pem").c_str());
    setCurl(curl, CURLOPT_SSLKEY, (location + "/key.pem").c_str());
}

}  // namespace

void configure(WSTransport& transport) {
    CURL* curl = transport.curl.get();
    const Settings& s = transport.settings;
    bool loopback = false;
    curl_easy_reset(curl);
    transport.unusable = readServerUrl(transport, loopback);
    // Signals belong to the program: no SIGALRM, no change of handlers.
    setCurl(curl, CURLOPT_NOSIGNAL, 1L);
    setCurl(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    setCurl(curl, CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1});
    // A redirect would carry the request, and the login, to a host that nobody configured.
    setCurl(curl, CURLOPT_FOLLOWLOCATION, 0L);
    setCurl(curl, CURLOPT_SSLVERSION, long{CURL_SSLVERSION_TLSv1_2});
    setCurl(curl, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
    setCurl(curl, CURLOPT_NETRC, long{CURL_NETRC_IGNORED});
    setCurl(curl, CURLOPT_CONNECTTIMEOUT_MS, kConnectTimeoutMs);
    setCurl(curl, CURLOPT_TCP_KEEPALIVE, 1L);
    setCurl(curl, CURLOPT_USERAGENT, "kspool");
    if (loopback) setCurl(curl, CURLOPT_NOPROXY, "*");
    setKeys(curl, s.keyLocation.text());
    if (!s.login.text().empty()) {
        setCurl(curl, CURLOPT_HTTPAUTH, long{CURLAUTH_BASIC});
        setCurl(curl, CURLOPT_USERNAME, s.login.text().c_str());
        setCurl(curl, CURLOPT_PASSWORD, s.password.text().c_str());
    }
    setCurl(curl, CURLOPT_OPENSOCKETFUNCTION, onOpen);
    setCurl(curl, CURLOPT_OPENSOCKETDATA, &transport);
    setCurl(curl, CURLOPT_CLOSESOCKETFUNCTION, onClose);
    setCurl(curl, CURLOPT_CLOSESOCKETDATA, &transport);
    setCurl(curl, CURLOPT_PREREQFUNCTION, onTransmission);
    setCurl(curl, CURLOPT_PREREQDATA, &transport);
    setCurl(curl, CURLOPT_HEADERFUNCTION, onHeader);
    setCurl(curl, CURLOPT_WRITEFUNCTION, onBody);
    transport.configured = true;
}

}  // namespace ws
