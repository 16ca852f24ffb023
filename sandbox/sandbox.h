// A pool server for development: speaks docs/wire-protocol.md on 127.0.0.1, keeps its data in
// SQLite, and injects faults on demand.
//
// Errors: a function that fails throws std::exception, with a text for people in what(). Only
// Server::admin() reports a failure in its answer.
#ifndef SANDBOX_SANDBOX_H
#define SANDBOX_SANDBOX_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace sandbox {

struct Account {
    std::string login;
    std::string password;
    std::vector<std::string> permissions;  ///< "read", "write", "delete"
};

struct Settings {
    std::string database;           ///< SQLite file, made when missing; empty: in memory
    bool sync = true;               ///< a change is on the disk before it is confirmed
    uint16_t port = 0;              ///< 0: the system chooses a free one
    std::string host;               ///< of the URL that clients use; administration under it
    std::string prefix;             ///< path of the URL, such as "/pool"; empty: none
    std::string tlsFolder;          ///< with ca.pem, cert.pem and key.pem; empty: plain http
    std::string accountsFile;       ///< as setUp() writes it
    std::vector<Account> accounts;  ///< more accounts; they override equal logins of the file
    std::string tree;               ///< folder whose names, sizes and times go into the name space
    uint32_t architectureMode = 1;
    std::string faults;  ///< JSON to order at the start: an array of faults, or a scenario's file
    unsigned idleSeconds = 60;                ///< idle connections are closed after this time
    uint64_t bodyLimit = uint64_t{64} << 20;  ///< bytes of a request's body
};

/// A running server, from its construction to its destruction. It has three threads, which block
/// all signals: libmicrohttpd's; the alarm's, which ends delays; and one that hashes passwords. Its
/// functions may be called from any thread.
class Server {
  public:
    /// Returns when the server accepts connections.
    explicit Server(const Settings& settings);
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    /// Ends all delays and closes the connections.
    ~Server();

    /// "http://127.0.0.1:PORT" and the prefix; "https" with a TLS folder.
    const std::string& url() const;
    uint16_t port() const;
    /// Says how many entries of Settings::tree were left out; empty when none was.
    const std::string& warning() const;

    /// Calls a function under /__admin/ without HTTP: admin("POST", "faults", "[...]"). Returns the
    /// answer's body, {"error": "..."} when the function failed.
    std::string admin(const std::string& method, const std::string& path,
                      const std::string& body = {});

  private:
    struct Parts;
    std::unique_ptr<Parts> parts_;
};

struct Setup {
    std::string folder;  ///< must be missing or empty
    std::string url;     ///< http://HOST[:PORT][/PATH], or https with `tls`
    bool tls = false;
    bool sync = true;  ///< the folder is on the disk when setUp() returns
};

/// Makes a folder with configuration, accounts and keys, complete or not at all. Returns its URL,
/// without slashes at the end.
std::string setUp(const Setup& setup);

/// Rewrites the configuration of such a folder for a server at another URL.
void changeUrl(const std::string& folder, const std::string& url);

/// The settings for a server of such a folder.
Settings readSetup(const std::string& folder);

}  // namespace sandbox

#endif
