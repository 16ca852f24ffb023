#include <arpa/inet.h>
#include <gnutls/gnutls.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "sandbox/http/admin.h"
#include "sandbox/http/exchange.h"

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

/// The server's key and certificate, and whose clients it believes.
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

/// A listening socket of 127.0.0.1, until release().
class Listener {
  public:
    explicit Listener(uint16_t port)
        : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
        const int yes = 1;
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        socklen_t length = sizeof address;
        if (socket_ < 0 || setsockopt(socket_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes) != 0 ||
            bind(socket_, generic, length) != 0 || listen(socket_, SOMAXCONN) != 0 ||
            getsockname(socket_, generic, &length) != 0) {
            const std::string reason = strerror(errno);
            close(socket_);
            fail("port " + std::to_string(port) + " of 127.0.0.1: " + reason);
        }
        port_ = ntohs(address.sin_port);
    }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;
    ~Listener() {
        if (socket_ >= 0) close(socket_);
    }

    int socket() const { return socket_; }
    uint16_t port() const { return port_; }
    void release() { socket_ = -1; }

  private:
    int socket_;
    uint16_t port_ = 0;
};

/// Signals are for the program's own threads: those that are started meanwhile block them.
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

/// The first complaint of libmicrohttpd says why it does not start.
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

void noteConnection(void* closure, MHD_Connection* connection, void** /*own*/,
                    MHD_ConnectionNotificationCode code) noexcept {
    if (code != MHD_CONNECTION_NOTIFY_STARTED) return;
    State& state = static_cast<Service*>(closure)->state;
    {
        const std::lock_guard<std::mutex> lock(state.mutex);
        state.log.addConnection();
    }
    const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_GNUTLS_SESSION);
    if (info == nullptr || info->tls_session == nullptr) return;
    // libmicrohttpd asks for a client's certificate, but neither demands nor verifies one.
    auto* session = static_cast<gnutls_session_t>(info->tls_session);
    gnutls_certificate_server_set_request(session, GNUTLS_CERT_REQUIRE);
    gnutls_session_set_verify_cert(session, nullptr, 0);
}

}  // namespace

struct Server::Parts {
    explicit Parts(const Settings& settings)
        : keys(settings.tlsFolder), state(settings), service{state, alarm} {
        state.prefix = settings.prefix;
        state.bodyLimit = settings.bodyLimit;
        if (!settings.tree.empty()) placeTree(settings.tree);
        listen(settings.port);
    }
    Parts(const Parts&) = delete;
    Parts& operator=(const Parts&) = delete;
    ~Parts() {
        alarm.stop();
        if (daemon != nullptr) MHD_stop_daemon(daemon);
    }

    void placeTree(const std::string& folder) {
        const uint64_t leftOut = state.core.placeFolder(folder);
        if (leftOut > 0) {
            warning =
                folder + ": " + std::to_string(leftOut) +
                " entries left out: neither file nor folder, or with names that are not valid";
        }
    }

    void listen(uint16_t wanted);

    Keys keys;
    State state;
    Alarm alarm;
    Service service;
    Complaints complaints;
    uint16_t port = 0;
    std::string warning;
    MHD_Daemon* daemon = nullptr;
};

void Server::Parts::listen(uint16_t wanted) {
    Listener listener(wanted);
    port = listener.port();
    const std::string address = "127.0.0.1:" + std::to_string(port);
    state.url = (keys.used() ? "https://" : "http://") + address + state.prefix;
    state.core.setServerAddress(address);

    const auto pointer = [](std::string& text) -> void* { return text.data(); };
    MHD_OptionItem tls[] = {{MHD_OPTION_HTTPS_MEM_KEY, 0, pointer(keys.key)},
                            {MHD_OPTION_HTTPS_MEM_CERT, 0, pointer(keys.certificate)},
                            {MHD_OPTION_HTTPS_MEM_TRUST, 0, pointer(keys.authority)},
                            {MHD_OPTION_END, 0, nullptr}};
    unsigned flags = MHD_USE_EPOLL_INTERNAL_THREAD | MHD_ALLOW_SUSPEND_RESUME | MHD_USE_ERROR_LOG;
    if (keys.used()) flags |= MHD_USE_TLS;
    daemon = MHD_start_daemon(flags, 0, nullptr, nullptr, continueExchange, &service,  //
                              MHD_OPTION_EXTERNAL_LOGGER, complain, &complaints,       //
                              MHD_OPTION_LISTEN_SOCKET, listener.socket(),             //
                              MHD_OPTION_URI_LOG_CALLBACK, beginExchange, &service,    //
                              MHD_OPTION_NOTIFY_COMPLETED, endExchange, &service,      //
                              MHD_OPTION_NOTIFY_CONNECTION, noteConnection, &service,  //
                              MHD_OPTION_ARRAY, keys.used() ? tls : tls + 3, MHD_OPTION_END);
    if (daemon == nullptr) fail("the HTTP server does not start: " + complaints.first);
    listener.release();
}

Server::Server(std::unique_ptr<Parts> parts) : parts_(std::move(parts)) {}

Server::~Server() = default;

std::unique_ptr<Server> Server::start(const Settings& settings, std::string& error) {
    const SignalsBlocked blocked;
    try {
        return std::unique_ptr<Server>(new Server(std::make_unique<Parts>(settings)));
    } catch (const std::exception& failure) {
        error = failure.what();
    } catch (const Event& event) {
        error = event.text;
    }
    return nullptr;
}

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
    const std::string function = path.starts_with(folder) ? path.substr(folder.size()) : path;
    return administrate(parts_->state, method, function, body).body;
}

}  // namespace sandbox
