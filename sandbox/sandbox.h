// A pool server for development: docs/wire-protocol.md on 127.0.0.1, with its data in SQLite and
// with faults to order.
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
    uint16_t port = 0;              ///< 0: a free one
    std::string prefix;             ///< path of the URL, such as "/pool"; empty: none
    std::string tlsFolder;          ///< with ca.pem, cert.pem and key.pem; empty: plain http
    std::string accountsFile;       ///< as setUp() writes it
    std::vector<Account> accounts;  ///< further ones
    std::string tree;               ///< folder whose names, sizes and times are taken over
    uint32_t architectureMode = 1;
    uint64_t bodyLimit = uint64_t{64} << 20;  ///< bytes of a request's body
};

/// A server that works in threads of its own while it lives.
class Server {
  public:
    /// NULL with the reason in `error`.
    static std::unique_ptr<Server> start(const Settings& settings, std::string& error);

    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    ~Server();

    /// "http://127.0.0.1:PORT" and the prefix.
    const std::string& url() const;
    uint16_t port() const;
    /// What of the tree could not be taken over, empty when all was.
    const std::string& warning() const;

    /// The functions under /__admin/ without HTTP: admin("POST", "faults", "[...]"). Returns the
    /// answer's body; that of a call that failed is {"error": "..."}.
    std::string admin(const std::string& method, const std::string& path,
                      const std::string& body = {});

  private:
    struct Parts;
    explicit Server(std::unique_ptr<Parts> parts);
    std::unique_ptr<Parts> parts_;
};

struct Setup {
    std::string folder;  ///< to be made; an empty one is allowed
    std::string url;     ///< http://HOST[:PORT][/PATH], or https with `tls`
    bool tls = false;
};

/// Makes a folder with configuration, accounts and keys, complete or not at all. False with the
/// reason in `error`.
bool setUp(const Setup& setup, std::string& error);

/// The settings for a server of such a folder.
bool readSetup(const std::string& folder, Settings& settings, std::string& error);

}  // namespace sandbox

#endif
