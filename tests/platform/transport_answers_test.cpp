// Answers of whatever bytes a row gives them: what comes of each.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "platform/support.h"
#include "platform/ws.h"
#include "tests/support/raw_server.h"
#include "tests/support/transport_client.h"

namespace {

#ifdef KSPOOL_SANITIZED  // freed memory stays resident for a while
constexpr uint64_t kMostGrowth = 256 << 20;
#else
constexpr uint64_t kMostGrowth = 16 << 20;
#endif

/// The C escapes of a text, and <3*x> for xxx.
std::string expanded(const std::string& text) {
    static const std::map<char, char> kEscapes = {
        {'r', '\r'}, {'n', '\n'}, {'0', '\0'}, {'\\', '\\'}};
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\') {
            out += kEscapes.at(text[++i]);
        } else if (const size_t star = text.find('*', i); text[i] == '<') {
            const size_t end = text.find('>', star);
            const std::string part = expanded(text.substr(star + 1, end - star - 1));
            for (size_t count = std::stoull(text.substr(i + 1)); count > 0; --count)
                out += part;
            i = end;
        } else {
            out += text[i];
        }
    }
    return out;
}

std::string answered(const std::string& text) {
    const size_t space = text.find(' ');
    const std::string word = text.substr(0, space),
                      rest = space < text.size() ? text.substr(space + 1) : "";
    if (word == "@text") return textAnswer(rest);
    if (word == "@head") return kHead + rest;
    if (word == "@chunked") return kHead + "Transfer-Encoding: chunked\r\n\r\n" + rest;
    if (word == "@problem") return answer("409 Conflict", "application/problem+json", rest);
    if (word != "@answer") return text;
    const size_t type = rest.find('|') + 1, body = rest.find('|', type) + 1;
    return answer(rest.substr(0, type - 1), rest.substr(type, body - 1 - type), rest.substr(body));
}

struct Row {
    std::string name, outcome;
    Reply reply;
};

std::vector<Row> rows() {
    static const std::map<char, Reply::End> kEnds = {{'o', kOpen}, {'c', kClose}, {'r', kReset}};
    std::ifstream file(ANSWERS);
    std::vector<Row> out;
    for (std::string line; std::getline(file, line);) {
        std::vector<std::string> cells;
        for (size_t at = 0, end = 0; end != std::string::npos; at = end + 3) {
            end = cells.size() < 3 ? line.find(" : ", at) : std::string::npos;
            cells.push_back(line.substr(at, end - at));
            if (cells.size() < 4) cells.back().erase(cells.back().find_last_not_of(' ') + 1);
        }
        if (cells.size() < 4) continue;
        const size_t space = cells[2].find(' '), plus = cells[2].find('+');
        const std::string delay = space < plus ? cells[2].substr(space, plus - space) : "";
        out.push_back({cells[0],
                       expanded(cells[1]),
                       {answered(expanded(cells[3])), kEnds.at(cells[2][0]), atoi(delay.c_str()),
                        plus < cells[2].size() ? std::stoull(cells[2].substr(plus)) : 0}});
    }
    return out;
}

std::ostream& operator<<(std::ostream& out, const Row& row) {
    return out << row.name;
}

class Answers : public testing::TestWithParam<Row> {};

// Each answer has its status within the deadline plus a second and in bounded memory, and the next
// request is answered.
TEST_P(Answers, ComeToTheirStatus) {
    const Row& row = GetParam();
    RawServer server;
    Transport transport(server.url());
    ASSERT_EQ(transport.get(), 0U);  // resident from now on: what any request needs
    // A new connection, since libcurl repeats a request whose old one dies.
    transport.set(WS_OPT_SERVER_URL, (server.url() + "/").c_str());
    server.refuse();
    server.listen();
    server.queue(row.reply);
    const uint64_t before = OSGetRSS();
    const auto start = Clock::now();
    std::string outcome = std::to_string(transport.get());
    if (transport.result.eventCode != 0) {
        outcome += " event " + std::to_string(transport.result.eventCode);
        if (transport.result.description != nullptr)
            outcome += std::string(" ") + transport.result.description;
    } else if (outcome == "0") {
        outcome += transport.result.data == nullptr ? " none" : " text " + transport.data();
    }
    EXPECT_EQ(outcome, row.outcome);
    EXPECT_LT(secondsSince(start), 3);
    EXPECT_LT(OSGetRSS(), before + kMostGrowth);
    EXPECT_EQ(server.requests().size(), 2U);
    EXPECT_EQ(transport.get(), 0U);
    EXPECT_EQ(transport.data(), "ok");
}

INSTANTIATE_TEST_SUITE_P(Rows, Answers, testing::ValuesIn(rows()),
                         [](const auto& given) { return given.param.name; });

// Wherever an answer is cut, it is not taken for a whole one, and the next one is.
TEST(PartsOfAnswers, AreNotTakenForTheWhole) {
    const std::string wholes[] = {textAnswer("hello"),
                                  answered("@chunked 3\r\nhel\r\n2\r\nlo\r\n0\r\n\r\n")};
    RawServer server;
    Transport transport(server.url());
    for (const std::string& whole : wholes) {
        for (const Reply::End end : {kClose, kReset}) {
            for (size_t length = 1; length < whole.size(); length += end == kClose ? 1 : 7) {
                ASSERT_EQ(transport.get(), 0U);
                server.queue({whole.substr(0, length), end, 0, 0});
                const uint32_t status = transport.get();
                // The empty chunk ends the data; what may follow it is of no interest.
                if (status == 0 && transport.data() == "hello" && length + 2 >= whole.size())
                    continue;
                // Without a whole line there was no answer yet, and the request is sent again.
                const bool none = length < whole.find("\r\n") + 2;
                EXPECT_TRUE(none ? status == 0 : status == kCut || status == kBad)
                    << length << ": " << status;
                EXPECT_EQ(transport.data(), none ? "ok" : "(none)");
            }
        }
        server.queue({whole, kOpen, 0, 0, 1});
        ASSERT_EQ(transport.get(), 0U);
        EXPECT_EQ(transport.data(), "hello");
    }
}

}  // namespace
