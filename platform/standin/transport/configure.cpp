// The transport's stand-in: the options that every request shares. The server URL is checked, and
// libcurl is told how to connect, whom to trust and which sockets to use.
#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "common/ascii.h"
#include "common/descriptor_above.h"
#include "platform/standin/transport/transport.h"

namespace ws {
namespace {

constexpr long kConnectTimeoutMs = 10'000;

/// An environment variable; NULL when it is not set or empty.
const char* setVariable(const char* name) {
    const char* value = getenv(name);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

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
using Url = std::unique_ptr<CURLU, FreeUrl>;

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

/// A parsed URL, or NULL unless the text is an http or https URL. libcurl also accepts "http:/host"
/// and "http:///host", in which other programs find another host or none.
Url parsed(std::string_view text) {
    Url url(curl_url());
    if (url == nullptr) throw std::bad_alloc();
    const std::string copy(text);
    if (!isOk(curl_url_set(url.get(), CURLUPART_URL, copy.c_str(), 0))) return nullptr;
    const std::string scheme = partOf(url.get(), CURLUPART_SCHEME);
    if (scheme != "http" && scheme != "https") return nullptr;
    const std::string_view rest = text.substr(std::min(scheme.size(), text.size()));
    return rest.starts_with("://") && !rest.starts_with(":///") ? std::move(url) : nullptr;
}

/// Strips slashes at the end.
std::string bare(const std::string& text) {
    return text.substr(0, text.find_last_not_of('/') + 1);
}

/// Checks the server URL and fills `base` and `path`. Returns 0, or the status that every request
/// with this URL gets.
uint32_t readServerUrl(WSTransport& transport, bool& loopback) {
    const std::string_view text = transport.settings.serverUrl.view();
    if (text.empty()) return WS_STATUS_NO_SERVER;
    const Url url = parsed(text);
    if (url == nullptr) return WS_STATUS_NO_SERVER;
    // Paths are appended to the text, and would become part of a query or fragment.
    if (text.find_first_of("?#") != std::string_view::npos) return WS_STATUS_NO_SERVER;
    // The URL is logged with each failure, and a password in it would be logged as well.
    for (const CURLUPart part : {CURLUPART_USER, CURLUPART_PASSWORD}) {
        if (!partOf(url.get(), part).empty()) return WS_STATUS_NO_SERVER;
    }
    loopback = isLoopback(partOf(url.get(), CURLUPART_HOST));
    transport.isTls = partOf(url.get(), CURLUPART_SCHEME) == "https";
    const char* allowed = setVariable("KSPOOL_ALLOW_PLAINTEXT");
    if (!transport.isTls && !loopback && (allowed == nullptr || strcmp(allowed, "1") != 0)) {
        return WS_STATUS_PLAINTEXT;
    }
    transport.base = bare(partOf(url.get(), CURLUPART_URL));
    transport.path = bare(partOf(url.get(), CURLUPART_PATH));
    return CR_STATUS_OK;
}

/// Sets the proxy, if any. By default libcurl would take one from http_proxy and similar variables,
/// which are set for other programs: login and password could reach a host that nobody trusts with
/// them. Only TLS goes through a proxy, as a tunnel that the proxy cannot read. Returns 0, or a
/// status for an unusable KSPOOL_PROXY: connecting directly instead may be what the user forbids.
uint32_t setProxy(const WSTransport& transport, bool loopback) {
    CURL* curl = transport.curl.get();
    const char* proxy = transport.isTls && !loopback ? setVariable("KSPOOL_PROXY") : nullptr;
    setCurl(curl, CURLOPT_NOPROXY, "");
    setCurl(curl, CURLOPT_PROXY, proxy != nullptr ? proxy : "");
    if (proxy == nullptr) return CR_STATUS_OK;
    setCurl(curl, CURLOPT_HTTPPROXYTUNNEL, 1L);
    return parsed(proxy) != nullptr ? uint32_t{CR_STATUS_OK} : uint32_t{WS_STATUS_NO_SERVER};
}

size_t onHeader(char* line, size_t, size_t length, void* collector) {
    return static_cast<Collector*>(collector)->header(line, length);
}

size_t onBody(char* bytes, size_t, size_t length, void* collector) {
    return static_cast<Collector*>(collector)->body(bytes, length);
}

/// Opens a socket and adds it to the list, where failed attempts and WSShutdown() in a child find
/// it.
curl_socket_t onOpen(void* transport, curlsocktype, curl_sockaddr* address) {
    const curl_socket_t opened = kspool::aboveStandard(
        socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol));
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

/// Called just before a request is sent on a connection. A second call within an attempt means that
/// libcurl has repeated the request by itself.
int onTransmission(void* data, char*, char*, int, int) {
    auto* transport = static_cast<WSTransport*>(data);
    ++transport->transmissions;
    curl_easy_getinfo(transport->curl.get(), CURLINFO_OS_ERRNO, &transport->connectErrno);
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
    if (transport.unusable == 0) transport.unusable = setProxy(transport, loopback);
    // Signals belong to the program: use no SIGALRM, and install no handlers.
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
    // Otherwise a name server that never answers would block the caller beyond the deadline.
    setCurl(curl, CURLOPT_QUICK_EXIT, 1L);
    setKeys(curl, s.keyLocation.text());
    if (!s.login.empty()) {
        setCurl(curl, CURLOPT_HTTPAUTH, long{CURLAUTH_BASIC});
        setCurl(curl, CURLOPT_USERNAME, s.login.text());
        setCurl(curl, CURLOPT_PASSWORD, s.password.text());
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
