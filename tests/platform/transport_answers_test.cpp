// Answers of whatever bytes a row gives them: what comes of each.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/support.h"
#include "platform/ws.h"
#include "tests/support/raw_server.h"
#include "tests/support/transport_client.h"

namespace {

#ifdef __SANITIZE_ADDRESS__  // freed memory stays resident for a while
constexpr uint64_t kMostGrowth = 256 << 20;
#else
constexpr uint64_t kMostGrowth = 16 << 20;
#endif

struct Row {
    const char* name;
    Reply reply;
    uint32_t status;
    uint32_t eventCode;
    const char* data;
    const char* description;
};

std::string problem(const std::string& members) {
    return answer("409 Conflict", "application/problem+json", members);
}

std::string chunked(const std::string& chunks) {
    return "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nTransfer-Encoding: chunked\r\n\r\n" +
           chunks;
}

std::string manyHeaders(size_t count, size_t length) {
    std::string text = "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 0\r\n";
    for (size_t i = 0; i < count; ++i)
        text += "X-More: " + std::string(length, 'x') + "\r\n";
    return text + "\r\n";
}

std::string interims(size_t count) {
    std::string text;
    for (size_t i = 0; i < count; ++i)
        text += "HTTP/1.1 103 Early Hints\r\n\r\n";
    return text;
}

std::vector<Row> rows() {
    // clang-format off
    return {
        {"text",             {textAnswer("1700000000\n"), kOpen, 0, 0},                    0, 0, "1700000000\n", nullptr},
        {"textThenClose",    {textAnswer("x"), kClose, 0, 0},                              0, 0, "x", nullptr},
        {"empty",            {textAnswer(""), kOpen, 0, 0},                                0, 0, nullptr, nullptr},
        {"charset",          {answer("200 OK", "TEXT/PLAIN; charset=utf-8", "x"), kOpen, 0, 0}, 0, 0, "x", nullptr},
        {"chunks",           {chunked("3\r\nabc\r\n2\r\nde\r\n0\r\n\r\n"), kOpen, 0, 0},   0, 0, "abcde", nullptr},
        {"interim",          {"HTTP/1.1 103 Early Hints\r\nContent-Type: text/html\r\n\r\n" + textAnswer("x"), kOpen, 0, 0}, 0, 0, "x", nullptr},
        {"excess",           {textAnswer("x") + textAnswer("smuggled"), kOpen, 0, 0},      0, 0, "x", nullptr},
        {"trailers",         {chunked("1\r\nx\r\n0\r\nContent-Type: text/html\r\nContent-Encoding: gzip\r\n\r\n"), kOpen, 0, 0}, 0, 0, "x", nullptr},
        {"late",             {textAnswer("x"), kOpen, 1000, 0},                            0, 0, "x", nullptr},
        {"atTheLimit",       {kHead + "Content-Length: 8388608\r\n\r\n", kOpen, 0, kLimit}, 0, 0, "*", nullptr},
        {"nul",              {textAnswer(std::string("a\0b", 3)), kOpen, 0, 0},            kBad, 0, nullptr, nullptr},
        {"html",             {answer("200 OK", "text/html", "x"), kOpen, 0, 0},            kBad, 0, nullptr, nullptr},
        {"noType",           {"HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\nx", kOpen, 0, 0}, kBad, 0, nullptr, nullptr},
        {"endByClosing",     {kHead + "\r\nx", kClose, 0, 0},                              kBad, 0, nullptr, nullptr},
        {"gzip",             {kHead + "Content-Encoding: gzip\r\nContent-Length: 1\r\n\r\nx", kOpen, 0, 0}, kBad, 0, nullptr, nullptr},
        {"lengthsDiffer",    {kHead + "Content-Length: 5\r\nContent-Length: 3\r\n\r\nhello", kOpen, 0, 0}, kBad, 0, nullptr, nullptr},
        {"lengthHasMore",    {kHead + "Content-Length: 3abc\r\n\r\nhello", kOpen, 0, 0}, kBad, 0, nullptr, nullptr},
        {"lengthHasSign",    {kHead + "Content-Length: +3\r\n\r\nhello", kOpen, 0, 0}, kBad, 0, nullptr, nullptr},
        {"lengthAndChunks",  {kHead + "Content-Length: 1\r\nTransfer-Encoding: chunked\r\n\r\n1\r\nx\r\n0\r\n\r\n", kOpen, 0, 0}, kBad, 0, nullptr, nullptr},
        {"gzipChunks",       {kHead + "Transfer-Encoding: gzip, chunked\r\n\r\n0\r\n\r\n", kOpen, 0, 0}, kBad, 0, nullptr, nullptr},
        {"badChunk",         {chunked("zz\r\nx\r\n0\r\n\r\n"), kOpen, 0, 0},           kBad, 0, nullptr, nullptr},
        {"trailerWithNul",   {chunked(std::string("1\r\nx\r\n0\r\nA: \0b\r\n\r\n", 19)), kOpen, 0, 0}, kBad, 0, nullptr, nullptr},
        {"http2",            {"HTTP/2 200\r\nContent-Type: text/plain\r\nContent-Length: 1\r\n\r\nx", kOpen, 0, 0}, kBad, 0, nullptr, nullptr},
        {"eventLong",        {problem("{\"eventCode\":7,\"x\":\"" + std::string(1 << 20, 'x') + "\"}"), kOpen, 0, 0}, kLarge, 0, nullptr, nullptr},
        {"eventWithNul",     {problem(std::string("{\"eventCode\":7}\0", 16)), kOpen, 0, 0}, kBad, 0, nullptr, nullptr},
        {"eventOnTerminal",  {problem(R"({"eventCode":7,"detail":"a\u001b[2J\nb"})"), kOpen, 0, 0}, 0, 7, nullptr, "a [2J b"},
        {"lengthIsNone",     {kHead + "Content-Length: none\r\n\r\nx", kClose, 0, 0},   kBad, 0, nullptr, nullptr},
        {"lengthOverflows",  {kHead + "Content-Length: 99999999999999999999\r\n\r\nx", kClose, 0, 0}, kLarge, 0, nullptr, nullptr},
        {"http09",           {"x", kClose, 0, 0},                                          kBad, 0, nullptr, nullptr},
        {"interimForEver",   {interims(20000), kClose, 0, 0},                                kLarge, 0, nullptr, nullptr},
        {"noContent",        {"HTTP/1.1 204 No Content\r\n\r\n", kOpen, 0, 0},             kBad, 0, nullptr, nullptr},
        {"redirect",         {"HTTP/1.1 307 Temporary Redirect\r\nLocation: /other\r\nContent-Length: 0\r\n\r\n", kOpen, 0, 0}, kBad, 0, nullptr, nullptr},
        {"plainError",       {answer("500 Oops", "text/plain", "x"), kOpen, 0, 0},         kBad, 0, nullptr, nullptr},
        {"event",            {problem(R"({"eventCode":7,"detail":"no permission"})"), kOpen, 0, 0}, 0, 7, nullptr, "no permission"},
        {"eventMost",        {problem(R"({"eventCode":4294967295})"), kOpen, 0, 0},        0, 4294967295, nullptr, nullptr},
        {"eventTypes",       {problem(R"({"eventCode":7,"detail":5,"severity":null})"), kOpen, 0, 0}, 0, 7, nullptr, nullptr},
        {"eventNoCode",      {problem(R"({"detail":"x"})"), kOpen, 0, 0},                  kBad, 0, nullptr, nullptr},
        {"eventZero",        {problem(R"({"eventCode":0})"), kOpen, 0, 0},                 kBad, 0, nullptr, nullptr},
        {"eventNegative",    {problem(R"({"eventCode":-1})"), kOpen, 0, 0},                kBad, 0, nullptr, nullptr},
        {"eventLarge",       {problem(R"({"eventCode":4294967296})"), kOpen, 0, 0},        kBad, 0, nullptr, nullptr},
        {"eventFraction",    {problem(R"({"eventCode":7.0})"), kOpen, 0, 0},               kBad, 0, nullptr, nullptr},
        {"eventBroken",      {problem(R"({"eventCode":7)"), kOpen, 0, 0},                  kBad, 0, nullptr, nullptr},
        {"eventArray",       {problem(R"([{"eventCode":7}])"), kOpen, 0, 0},               kBad, 0, nullptr, nullptr},
        {"eventDeep",        {problem(std::string(100000, '[')), kOpen, 0, 0},             kBad, 0, nullptr, nullptr},
        {"eventNone",        {problem(""), kOpen, 0, 0},                                   kBad, 0, nullptr, nullptr},
        {"eventOf200",       {answer("200 OK", "application/problem+json", R"({"eventCode":7})"), kOpen, 0, 0}, kBad, 0, nullptr, nullptr},
        {"eventOf302",       {answer("302 Found", "application/problem+json", R"({"eventCode":7})"), kOpen, 0, 0}, kBad, 0, nullptr, nullptr},
        {"eventOf600",       {answer("600 Beyond", "application/problem+json", R"({"eventCode":7})"), kOpen, 0, 0}, kBad, 0, nullptr, nullptr},
        {"largeByLength",    {kHead + "Content-Length: 8388609\r\n\r\n", kOpen, 0, 100},   kLarge, 0, nullptr, nullptr},
        {"largeByChunks",    {chunked("1000000\r\n"), kClose, 0, 0x1000000},               kLarge, 0, nullptr, nullptr},
        {"largeHeaders",     {manyHeaders(300, 1000), kOpen, 0, 0},                        kLarge, 0, nullptr, nullptr},
        {"longHeader",       {manyHeaders(1, 1000000), kOpen, 0, 0},                       kLarge, 0, nullptr, nullptr},
        {"closed",           {"", kClose, 0, 0},                                           kCut, 0, nullptr, nullptr},
        {"reset",            {"", kReset, 0, 0},                                           kCut, 0, nullptr, nullptr},
        {"cutInHead",        {"HTTP/1.1 200 OK\r\nConte", kClose, 0, 0},                   kCut, 0, nullptr, nullptr},
        {"cutInBody",        {kHead + "Content-Length: 10\r\n\r\nabc", kClose, 0, 0},      kCut, 0, nullptr, nullptr},
        {"resetInBody",      {kHead + "Content-Length: 10\r\n\r\nabc", kReset, 0, 0},      kCut, 0, nullptr, nullptr},
        {"cutInChunk",       {chunked("a\r\nabc"), kClose, 0, 0},                          kCut, 0, nullptr, nullptr},
        {"noLastChunk",      {chunked("3\r\nabc\r\n"), kClose, 0, 0},                      kCut, 0, nullptr, nullptr},
        {"stalled",          {"HTTP/1.1 200 OK\r\n", kOpen, 2500, 0},                      WS_STATUS_TIMED_OUT, 0, nullptr, nullptr},
        {"stalledInBody",    {kHead + "Content-Length: 10\r\n\r\nabc", kOpen, 0, 0},       WS_STATUS_TIMED_OUT, 0, nullptr, nullptr},
    };
    // clang-format on
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
    EXPECT_EQ(transport.get(), row.status);
    EXPECT_LT(secondsSince(start), 3);
    EXPECT_LT(OSGetRSS(), before + kMostGrowth);
    EXPECT_EQ(transport.result.eventCode, row.eventCode);
    if (row.data != nullptr && *row.data == '*') {
        EXPECT_EQ(transport.data(), std::string(kLimit, 'x'));
    } else {
        EXPECT_EQ(transport.data(), row.data == nullptr ? "(none)" : row.data);
    }
    EXPECT_STREQ(transport.result.description, row.description);
    EXPECT_EQ(server.requests().size(), 2U);
    EXPECT_EQ(transport.get(), 0U);
    EXPECT_EQ(transport.data(), "ok");
}

INSTANTIATE_TEST_SUITE_P(Rows, Answers, testing::ValuesIn(rows()),
                         [](const auto& given) { return given.param.name; });

// Wherever an answer is cut, it is not taken for a whole one, and the next one is.
TEST(PartsOfAnswers, AreNotTakenForTheWhole) {
    const std::string wholes[] = {textAnswer("hello"), chunked("3\r\nhel\r\n2\r\nlo\r\n0\r\n\r\n")};
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
