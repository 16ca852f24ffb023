// A client that sees every byte and how a connection ends.
#ifndef TESTS_SANDBOX_SANDBOX_CLIENT_H
#define TESTS_SANDBOX_SANDBOX_CLIENT_H

#include <cstdint>
#include <string>

/// An answer, as far as it came.
struct Reply {
    std::string end;  ///< "kept" (complete), "closed", "reset", "silent" (nothing more in time)
    std::string head;
    std::string body;

    std::string status() const { return head.size() > 12 ? head.substr(9, 3) : ""; }
    /// "200 BODY", or "event CODE" when the status fits the code.
    std::string brief() const;
};

/// One connection to 127.0.0.1.
class Client {
  public:
    explicit Client(uint16_t port);
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client();

    void send(const std::string& bytes);
    Reply receive(int milliseconds = 5000);
    Reply ask(const std::string& bytes) {
        send(bytes);
        return receive();
    }

  private:
    int socket_;
};

struct Call {
    std::string form;  ///< "mkdir path=/a": the values are encoded here
    std::string id{};  ///< empty: a new one
    std::string login = "all:secret";
    std::string service = "metabase";
};

std::string newId();
std::string encoded(const std::string& form);
std::string basic(const std::string& credentials);
/// The bytes of a request.
std::string request(const std::string& target, const std::string& headers, const std::string& body);
std::string request(const Call& call);

#endif
