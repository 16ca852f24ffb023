// What the page of the development server shows is what went over the wire.
#include <gtest/gtest.h>
#include <sys/time.h>

#include <list>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "tests/support/loopback.h"
#include "tests/support/raw_server.h"
#include "tests/support/served_pool.h"

namespace {

using Json = nlohmann::json;

std::unique_ptr<sandbox::Server> served() {
    sandbox::Settings settings;
    settings.accounts = {{"me", "secret", {"read", "write", "delete"}}};
    return servedPool(settings);
}

/// A request for the time; its head is as long as `padding` makes it.
std::string timeRequest(size_t padding = 0) {
    return "POST /ws/metabase HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: Basic "
           "bWU6c2VjcmV0\r\nRequest-Id: 0123456789abcdef0123456789abcdef\r\nX-More: " +
           std::string(padding, 'p') +
           "\r\nContent-Type: application/x-www-form-urlencoded\r\nContent-Length: 14\r\n\r\n"
           "action=gettime";
}

TEST(Wire, MessagesAreThoseThatWent) {
    const auto server = served();
    uint64_t number = 0;
    for (const char* fault :
         {"", R"({"kind":"status","code":429,"retryAfter":3,"body":"later"})",
          R"({"kind":"cut","bytes":3})", R"({"kind":"event","severity":"WARNING"})",
          R"({"kind":"garbage","text":"no HTTP"})", R"({"kind":"oversize","bytes":20000})",
          R"({"kind":"nul"})", R"({"kind":"unbounded"})", R"({"kind":"redirect"})",
          R"({"kind":"stall","ms":1})", R"({"kind":"reset"})", R"({"kind":"lose"})"}) {
        SCOPED_TRACE(fault);
        server->admin("POST", "faults", "[" + std::string(fault) + "]");
        const std::string request = timeRequest(number);
        const Received answer = RawClient(server->port()).ask(request);
        const Json kept = Json::parse(server->admin("GET", "requests/" + std::to_string(++number)));
        std::string masked = request;
        masked.replace(masked.find("bWU6c2VjcmV0"), 12, "***");
        EXPECT_EQ(kept.value("request", ""), masked);
        EXPECT_EQ(kept["requestBytes"], masked.size());
        const std::string sent =
            answer.head + (answer.head.starts_with("HTTP/") ? "\r\n\r\n" + answer.body : "");
        EXPECT_EQ(kept.value("answer", ""), sent.substr(0, 8192));
        EXPECT_EQ(kept["answerBytes"], sent.size());
    }
    RawClient(server->port()).ask(timeRequest(9000));
    const Json kept = Json::parse(server->admin("GET", "requests/" + std::to_string(number + 1)));
    EXPECT_EQ(kept.value("request", "").size(), 8192U);
    EXPECT_EQ(kept["requestBytes"], timeRequest(9000).size() - 9);
}

/// Reads a stream of events up to a text in it.
class Events {
  public:
    explicit Events(uint16_t port) : socket_(loopback::connectTo(port)) {
        const timeval patience{10, 0};
        setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        constexpr char kAsk[] = "GET /__admin/events HTTP/1.1\r\nHost: localhost\r\n\r\n";
        EXPECT_EQ(send(socket_, kAsk, sizeof kAsk - 1, 0), static_cast<ssize_t>(sizeof kAsk - 1));
    }
    Events(const Events&) = delete;
    Events& operator=(const Events&) = delete;
    ~Events() { close(socket_); }

    /// The text up to the one that is waited for, and with it; what comes in time without it.
    std::string until(const std::string& wanted) {
        for (;;) {
            const size_t at = text_.find(wanted);
            if (at != std::string::npos) {
                const std::string read = text_.substr(0, at + wanted.size());
                text_.erase(0, read.size());
                return read;
            }
            char block[4096];
            const ssize_t got = recv(socket_, block, sizeof block, 0);
            if (got <= 0) return "not there: " + text_;
            text_.append(block, static_cast<size_t>(got));
        }
    }

  private:
    int socket_;
    std::string text_;
};

TEST(Wire, EventsTellWhatHappens) {
    const auto server = served();
    RawClient client(server->port());
    client.ask(timeRequest());
    Events events(server->port());
    EXPECT_NE(events.until("\"struck\":[]}").find("{\"number\":1,"), std::string::npos);
    server->admin("POST", "faults", R"([{"kind":"status","code":418}])");
    EXPECT_NE(events.until("\"struck\":[]}").find("\"code\":418"), std::string::npos);
    client.ask(timeRequest());
    const std::string struck = events.until("\"struck\":[{\"request\":2,\"kind\":\"status\"");
    EXPECT_NE(struck.find("\"action\":\"gettime\",\"login\":\"\",\"status\":418,"),
              std::string::npos)
        << struck;
    for (int i = 0; i < 150; ++i)
        client.ask(timeRequest());
    const std::string many = events.until("{\"number\":152,");
    EXPECT_NE(many.find("{\"missed\":"), std::string::npos);
    EXPECT_EQ(many.find("event: reset"), std::string::npos);
    server->admin("POST", "reset");
    EXPECT_EQ(events.until("event: reset\ndata: {}").find("not there"), std::string::npos);
    client.ask(timeRequest());
    EXPECT_EQ(events.until("{\"missed\":0,\"requests\":[{\"number\":1,").find("not there"),
              std::string::npos);
    std::list<Events> readers;
    for (int i = 0; i < 7; ++i)
        EXPECT_EQ(readers.emplace_back(server->port()).until("200 OK").find("not there"),
                  std::string::npos);
    EXPECT_EQ(Events(server->port()).until("503 ").find("not there"), std::string::npos);
}

}  // namespace
