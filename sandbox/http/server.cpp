// Server of sandbox.h: its parts, its socket and libmicrohttpd.
#include <arpa/inet.h>
#include <gnutls/gnutls.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>

#include "common/owned.h"
#include "sandbox/http/admin.h"
#include "sandbox/http/alarm.h"
#include "sandbox/http/calls.h"
#include "sandbox/http/exchange.h"
#include "sandbox/http/state.h"
#include "sandbox/sandbox.h"
#include "sandbox/scenarios.h"

namespace sandbox {
namespace {

[[noreturn]] void fail(const std::string& text) {
    throw std::runtime_error(text);
}

std::string contents(const std::string& file) {
    std::ifstream stream(file, std::ios::binary);
    if (!stream) fail(file + ": " + strerror(errno));
    return {std::istreambuf_iterator<char>(stream), {}};
}

/// PEM texts: the server's key and certificate, and the authority that must have signed the
/// certificates of clients. All empty without TLS.
struct Keys {
    std::string authority;
    std::string certificate;
    std::string key;

    explicit Keys(const std::string& folder) {
        if (folder.empty()) return;
        authority = contents(folder + "/ca.pem");
        certificate = contents(folder + "/cert.pem");
        key = contents(folder + "/key.pem");
    }
    bool used() const { return !key.empty(); }
};

/// A listening socket of 127.0.0.1 and its port.
struct Listener {
    kspool::Descriptor socket;
    uint16_t port;
};

/// Opens the listening socket. libmicrohttpd could do so too, but would not tell the port chosen
/// for port 0, nor the reason of a failure.
Listener listenOn(uint16_t port) {
    kspool::Descriptor made(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int yes = 1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t length = sizeof address;
    // SO_REUSEADDR: a restarted server must not wait for old connections in TIME_WAIT.
    if (made.get() < 0 || setsockopt(made.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes) != 0 ||
        bind(made.get(), generic, length) != 0 || listen(made.get(), SOMAXCONN) != 0 ||
        getsockname(made.get(), generic, &length) != 0) {
        fail("port " + std::to_string(port) + " of 127.0.0.1: " + strerror(errno));
    }
    return {std::move(made), ntohs(address.sin_port)};
}

/// During its life, new threads start with all signals blocked, so that signals reach only the
/// program's own threads: main() waits for SIGTERM, and a test's handlers must not run on the
/// server's threads.
class SignalsBlocked {
  public:
    SignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

  private:
    sigset_t before_{};
};

/// Keeps libmicrohttpd's first message, which says why it does not start. The daemon may log from
/// its thread, but `first` is read only if the daemon did not start, when there is no such thread.
struct Complaints {
    std::mutex mutex;
    std::string first;
};

void complain(void* closure, const char* format, va_list values) noexcept {
    auto& complaints = *static_cast<Complaints*>(closure);
    char text[256] = {};
    vsnprintf(text, sizeof text, format, values);
    text[strcspn(text, "\n")] = '\0';
    const std::lock_guard<std::mutex> lock(complaints.mutex);
    if (complaints.first.empty()) complaints.first = text;
}

void noteConnection(void* closure, MHD_Connection* connection, void** own,
                    MHD_ConnectionNotificationCode code) noexcept {
    if (code == MHD_CONNECTION_NOTIFY_CLOSED) static_cast<Service*>(closure)->connections.end(own);
    if (code != MHD_CONNECTION_NOTIFY_STARTED) return;
    auto& service = *static_cast<Service*>(closure);
    service.connections.begin(connection, own);
    State& state = service.state;
    {
        const std::lock_guard<std::mutex> lock(state.mutex);
        state.log.addConnection();
    }
    const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_GNUTLS_SESSION);
    if (info == nullptr || info->tls_session == nullptr) return;
    // libmicrohttpd requests a client certificate, but accepts a client without one, or with one of
    // a foreign authority. So let GnuTLS require and verify it during the handshake.
    auto* session = static_cast<gnutls_session_t>(info->tls_session);
    gnutls_certificate_server_set_request(session, GNUTLS_CERT_REQUIRE);
    gnutls_session_set_verify_cert(session, nullptr, 0);
}

}  // namespace

struct Server::Parts {
    explicit Parts(const Settings& settings)
        : keys(settings.tlsFolder),
          state(settings),
          logins(state.core.accounts()),
          service{state, alarm, logins, connections} {
        if (!settings.tree.empty()) placeTree(settings.tree);
        state.faults.add(settings.faults.empty() ? nlohmann::json::array()
                                                 : faultsOfText(settings.faults));
        listen(settings);
    }
    Parts(const Parts&) = delete;
    Parts& operator=(const Parts&) = delete;
    ~Parts() {
        // libmicrohttpd must not be stopped while connections are suspended.
        alarm.stop();
        logins.stop();
        if (daemon != nullptr) MHD_stop_daemon(daemon);
    }

    void placeTree(const std::string& folder) {
        const uint64_t leftOut = state.core.placeFolder(folder);
        if (leftOut > 0) {
            warning = folder + ": " + std::to_string(leftOut) +
                      (leftOut == 1 ? " entry" : " entries") +
                      " left out: neither file nor folder, or with names that are not valid";
        }
    }

    void listen(const Settings& settings);

    // The daemon's callbacks use all of these, so the destructor stops the daemon before it
    // destroys them.
    Keys keys;
    State state;
    Alarm alarm;
    Logins logins;
    Connections connections;
    Service service;
    Complaints complaints;
    uint16_t port = 0;
    std::string warning;
    MHD_Daemon* daemon = nullptr;
};

void Server::Parts::listen(const Settings& settings) {
    Listener listener = listenOn(settings.port);
    port = listener.port;
    const std::string address = "127.0.0.1:" + std::to_string(port);
    state.url = (keys.used() ? "https://" : "http://") + address + state.prefix;
    state.core.setServerAddress(address);

    const auto pointer = [](std::string& text) -> void* { return text.data(); };
    // By default GnuTLS would accept TLS 1.0 and 1.1 as well.
    std::string versions = "NORMAL:-VERS-ALL:+VERS-TLS1.3:+VERS-TLS1.2";
    MHD_OptionItem tls[] = {{MHD_OPTION_HTTPS_PRIORITIES, 0, pointer(versions)},
                            {MHD_OPTION_HTTPS_MEM_KEY, 0, pointer(keys.key)},
                            {MHD_OPTION_HTTPS_MEM_CERT, 0, pointer(keys.certificate)},
                            {MHD_OPTION_HTTPS_MEM_TRUST, 0, pointer(keys.authority)},
                            {MHD_OPTION_END, 0, nullptr}};
    unsigned flags = MHD_USE_EPOLL_INTERNAL_THREAD | MHD_ALLOW_SUSPEND_RESUME | MHD_USE_ERROR_LOG;
    if (keys.used()) flags |= MHD_USE_TLS;
    daemon = MHD_start_daemon(flags, 0, nullptr, nullptr, continueExchange, &service,  //
                              MHD_OPTION_EXTERNAL_LOGGER, complain, &complaints,       //
                              MHD_OPTION_LISTEN_SOCKET, listener.socket.get(),         //
                              MHD_OPTION_URI_LOG_CALLBACK, beginExchange, &service,    //
                              MHD_OPTION_NOTIFY_COMPLETED, endExchange, &service,      //
                              MHD_OPTION_NOTIFY_CONNECTION, noteConnection, &service,  //
                              MHD_OPTION_CONNECTION_LIMIT, connections.most(),         //
                              MHD_OPTION_CONNECTION_TIMEOUT, settings.idleSeconds,     //
                              MHD_OPTION_ARRAY, keys.used() ? tls : tls + 4, MHD_OPTION_END);
    if (daemon == nullptr) fail("the HTTP server does not start: " + complaints.first);
    static_cast<void>(listener.socket.release());  // the daemon closes it
}

Server::Server(const Settings& settings) {
    const SignalsBlocked blocked;
    parts_ = std::make_unique<Parts>(settings);
}

Server::~Server() = default;

const std::string& Server::url() const {
    return parts_->state.url;
}

uint16_t Server::port() const {
    return parts_->port;
}

const std::string& Server::warning() const {
    return parts_->warning;
}

std::string Server::admin(const std::string& method, const std::string& path,
                          const std::string& body) {
    const std::string folder = kAdminFolder;
    const std::string call = path.starts_with(folder) ? path.substr(folder.size()) : path;
    const size_t mark = std::min(call.find('?'), call.size());
    const std::string query = mark < call.size() ? call.substr(mark + 1) : "";
    return administrate(parts_->state, method, call.substr(0, mark), query, body).body;
}

}  // namespace sandbox
