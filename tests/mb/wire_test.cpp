// The captured exchanges: the client sends them and understands their answers, the server answers
// them, each without the other, and the document shows them.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "platform/status.h"
#include "sandbox/sandbox.h"
#include "tests/support/folder.h"
#include "tests/support/operations.h"
#include "tests/support/raw_server.h"

namespace {

struct Exchange {
    std::string name, login, call, outcome, request, answer;
};

std::string contentsOf(const char* path) {
    std::ifstream file(path);
    EXPECT_TRUE(file) << path;
    return {std::istreambuf_iterator<char>(file), {}};
}

/// As it stands on the wire: CR LF in the head, and not the LF that follows the body.
std::string wire(const std::string& text) {
    const size_t head = text.find("\n\n") + 2;
    std::string out;
    for (const char c : text.substr(0, head))
        out += c == '\n' ? "\r\n" : std::string(1, c);
    return out + text.substr(head, text.size() - 1 - head);
}

std::vector<Exchange> exchanges() {
    const std::string all = contentsOf(WIRE_CAPTURES);
    std::vector<Exchange> out;
    for (size_t at = all.find("\n== "); at != std::string::npos;) {
        const size_t next = all.find("\n\n== ", at);
        const size_t end = next == std::string::npos ? all.size() : next + 1;
        std::istringstream head(all.substr(at, end - at));
        Exchange exchange;
        std::string empty, line;
        std::getline(head, empty);
        std::getline(head.ignore(3), exchange.name);
        head >> empty >> exchange.login >> std::ws;
        std::getline(head, exchange.call);
        std::getline(head, line);
        exchange.outcome = line.substr(2);
        const size_t request = at + static_cast<size_t>(head.tellg());
        const size_t answer = all.find("\n-- answer\n", at);
        exchange.request = wire(all.substr(request, answer + 1 - request));
        exchange.answer = wire(all.substr(answer + 11, end - answer - 11));
        out.push_back(exchange);
        at = next == std::string::npos ? next : next + 1;
    }
    return out;
}

/// Without what differs from run to run.
std::string comparable(std::string text) {
    for (const std::string name : {"Host", "Request-Id", "Date"}) {
        const size_t at = text.find("\r\n" + name + ": ");
        if (at != std::string::npos) text.erase(at, text.find("\r\n", at + 2) - at);
    }
    return text;
}

constexpr char kSelections[] = R"([{"number":1},{"number":2,"tag":"a tag|2"}])";

TEST(Wire, IsWhatTheClientSpeaks) {
    const Folder folder;
    const std::string config = folder.path + "/wire.cfg";
    std::ofstream(config) << "\n";
    for (const Exchange& exchange : exchanges()) {
        SCOPED_TRACE(exchange.name);
        RawServer server({exchange.answer, Reply::KeepsOpen, 0, 0});
        operations::Objects objects;
        operations::run(objects, "filter all 10=*");
        operations::run(objects, "MBInitWithAgentCfg " + server.url() + " 0 " + exchange.login +
                                     " secret =" + config);
        ASSERT_NE(objects.session, nullptr);
        *__cr_errno_location() = 0;
        const std::string outcome =
            exchange.call == "WSArchMode"
                ? operations::withSlot(std::to_string(WSArchMode(objects.session->transport)))
                : operations::run(objects, exchange.call);
        EXPECT_EQ(outcome, exchange.outcome);
        operations::run(objects, "MBShutdown");
        ASSERT_EQ(server.requests().size(), 1U);
        EXPECT_EQ(comparable(server.requests()[0]), comparable(exchange.request));
    }
}

TEST(Wire, IsWhatTheServerSpeaks) {
    sandbox::Settings settings;
    settings.accounts = {{"agent", "secret", {"read", "write", "delete"}},
                         {"reader", "secret", {"read"}}};
    sandbox::Server server(settings);
    server.admin("POST", "clock", "1700000000");
    server.admin("POST", "dataselections", kSelections);
    // Ports differ, and so may their number of digits.
    const auto plain = [](const std::string& text) {
        std::string out = comparable(text);
        const std::string address = "\"127.0.0.1:";
        const size_t at = out.find(address);
        if (at != std::string::npos) {
            const size_t port = at + address.size();
            out.erase(port, out.find('"', port) - port);
            out.erase(out.find("\r\nContent-Length: "), 21);
        }
        return out;
    };
    for (const Exchange& exchange : exchanges())
        EXPECT_EQ(plain(rawExchange(server.port(), exchange.request)), plain(exchange.answer))
            << exchange.name;
}

TEST(Wire, IsWhatTheDocumentShows) {
    const std::string document = contentsOf(WIRE_DOCUMENT);
    for (const Exchange& exchange : exchanges()) {
        for (std::string text : {exchange.request, exchange.answer}) {
            std::erase(text, '\r');
            text.erase(text.find_last_not_of('\n') + 1);
            EXPECT_NE(document.find("```http\n" + text + "\n```"), std::string::npos)
                << exchange.name << "\n"
                << text;
        }
    }
}

}  // namespace
