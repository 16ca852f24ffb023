// Many clients of the development server at once, slow ones and those without manners.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <poll.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <list>
#include <thread>
#include <vector>

#include "tests/support/folder.h"
#include "tests/support/loopback.h"
#include "tests/support/raw_server.h"
#include "tests/support/sandbox_process.h"

namespace {

using Clock = std::chrono::steady_clock;

sandbox::Settings settings() {
    sandbox::Settings made;
    made.accounts = {{"me", "secret", {"read", "write", "delete"}}};
    return made;
}

uint16_t portOf(const std::string& url) {
    return static_cast<uint16_t>(std::stoi(url.substr(url.rfind(':') + 1)));
}

std::string request(const std::string& password, const std::string& body,
                    const std::string& target = "", const std::string& type = "") {
    static std::atomic<uint64_t> ids = 0;
    char id[64], login[128];
    snprintf(id, sizeof id, "%032llu", static_cast<unsigned long long>(++ids));
    const std::string pair = "me:" + password;
    EVP_EncodeBlock(reinterpret_cast<unsigned char*>(login),
                    reinterpret_cast<const unsigned char*>(pair.data()),
                    static_cast<int>(pair.size()));
    return "POST /ws/metabase" + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nRequest-Id: " + id +
           "\r\nAuthorization: Basic " + login +
           "\r\nContent-Type: " + (type.empty() ? "application/x-www-form-urlencoded" : type) +
           "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

double seconds(Clock::time_point since) {
    return std::chrono::duration<double>(Clock::now() - since).count();
}

/// Sockets that are closed at the end.
struct Sockets : std::list<int> {
    ~Sockets() {
        for (const int fd : *this)
            close(fd);
    }
};

bool closedWithin(int fd, int milliseconds) {
    pollfd wait{fd, POLLIN, 0};
    char byte = 0;
    return poll(&wait, 1, milliseconds) == 1 && recv(fd, &byte, 1, MSG_DONTWAIT) <= 0;
}

TEST(Crowd, HalfRequestsKeepNobodyOut) {
    auto impatient = settings();
    impatient.idleSeconds = 4;
    const SandboxProcess server(impatient);
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 4096);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    RawClient session(portOf(server.url));
    ASSERT_EQ(session.ask(request("secret", "action=gettime")).brief(), "200 1700000000\n");
    Sockets halves;
    constexpr char kHalf[] = "POST /ws/metabase HTTP/1.1\r\nHost: 127.0.0.1\r\n";
    for (int i = 0; i < 1100; ++i) {
        halves.push_back(loopback::connectTo(portOf(server.url)));
        ASSERT_EQ(send(halves.back(), kHalf, sizeof kHalf - 1, MSG_NOSIGNAL),
                  static_cast<ssize_t>(sizeof kHalf - 1));
    }
    const auto start = Clock::now();
    EXPECT_EQ(RawClient(portOf(server.url)).ask(request("secret", "action=gettime")).brief(),
              "200 1700000000\n");
    EXPECT_LT(seconds(start), 3.5) << "only the time-out let it in";
    EXPECT_TRUE(closedWithin(halves.front(), 1000)) << "room is made by the oldest";
    EXPECT_FALSE(closedWithin(halves.back(), 0));
    EXPECT_EQ(session.ask(request("secret", "action=gettime")).brief(), "200 1700000000\n")
        << "a connection that has sent a whole request stays longer";
    EXPECT_TRUE(closedWithin(halves.back(), 20'000)) << "nothing moves: the time-out";
}

/// Room is made by those who wait, never by the one who comes.
TEST(Crowd, IdleSessionsMakeRoom) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit small{200, limit.rlim_max};  // the server's: 136 connections
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &small), 0);
    const SandboxProcess server(settings());
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    std::list<RawClient> sessions;
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(sessions.emplace_back(portOf(server.url))
                      .ask(request("secret", "action=gettime"))
                      .brief(),
                  "200 1700000000\n")
            << i;
    }
}

/// Beside clients that guess, a session whose login was verified goes on as if they were not there.
TEST(Crowd, GuessesHoldNoLoginUp) {
    const SandboxProcess server(settings());
    const uint16_t port = portOf(server.url);
    const auto login = [port](const std::string& password) {
        const auto start = Clock::now();
        const std::string answer =
            RawClient(port).ask(request(password, "action=gettime"), 60'000).brief();
        EXPECT_EQ(answer, password == "secret" ? "200 1700000000\n" : "401 event 10001");
        return seconds(start);
    };
    const double alone = login("wrong");
    std::atomic<bool> ends = false;
    std::atomic<int> begun = 0;
    std::vector<std::thread> clients;
    for (int i = 0; i < 16; ++i) {
        clients.emplace_back([&, i] {
            for (int round = 0; !ends; ++round) {
                ++begun;
                login("guess" + std::to_string(i) + "." + std::to_string(round));
            }
        });
    }
    while (begun < 32)
        std::this_thread::yield();
    login("secret");
    const double again = login("secret");
    ends = true;
    for (std::thread& client : clients)
        client.join();
    EXPECT_LT(again, alone * 4);
}

/// What was announced arrives, whatever others do meanwhile: the answer is from one moment.
TEST(Crowd, LongAnswersAreSnapshots) {
    constexpr int kMany = 60'000;
    const Folder folder;
    auto stored = settings();
    stored.database = folder.path + "/pool.db";
    const SandboxProcess server(stored);
    const uint16_t port = portOf(server.url);
    std::string list;
    const auto line = [](int i) {
        return "1|1||0|0|c|p|i|/f|" + std::to_string(1'000'000 + i) + std::string(60, 'n') +
               "|d|f||||1|0|0|0|0|0|0|0|0|0|\n";
    };
    for (int i = 0; i < kMany; ++i)
        list += line(i);
    RawClient other(port);
    ASSERT_EQ(
        other.ask(request("secret", list, "?action=addlist&dataselection=1", "text/plain"), 60'000)
            .brief()
            .substr(0, 4),
        "200 ");
    const int reader = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const Sockets owned{{reader}};
    const int little = 4096;
    setsockopt(reader, SOL_SOCKET, SO_RCVBUF, &little, sizeof little);
    const sockaddr_in address = loopback::addressOf(port);
    ASSERT_EQ(connect(reader, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    const std::string find = request(
        "secret", "action=find&dataselection=1&filter=" +
                      std::string("0%7C0%7C%7C-1%7C-1%7C%2A%7C%2A%7C%2A%7C%2A%7C%2A%7C%2A%7C%2A%7C"
                                  "%2A%7C%2A%7C%2A%7C-1%7C-1%7C-1%7C-1%7C-1%7C-1%7C-1%7C-1%7C-1%7C"
                                  "-1%7C%2A"));
    ASSERT_EQ(send(reader, find.data(), find.size(), 0), static_cast<ssize_t>(find.size()));
    std::string answer(1000, '\0');
    ASSERT_EQ(recv(reader, answer.data(), answer.size(), MSG_WAITALL), 1000);
    ASSERT_NE(answer.find("\n60000\n"), std::string::npos) << answer;
    // What is not yet on its way is taken away.
    std::string form = "action=expire&dataselection=1&data=";
    for (int i = kMany - 1000; i < kMany; ++i) {
        for (const char c : line(i)) {
            char code[4];
            snprintf(code, sizeof code, "%%%02X", static_cast<unsigned char>(c));
            form += isalnum(static_cast<unsigned char>(c)) != 0 ? std::string(1, c) : code;
        }
    }
    ASSERT_EQ(other.ask(request("secret", form), 60'000).brief(), "200 1000\n");
    std::vector<char> block(1 << 16);
    while (!answer.ends_with("\r\n0\r\n\r\n")) {
        const ssize_t got = recv(reader, block.data(), block.size(), 0);
        ASSERT_GT(got, 0) << "the answer is cut";
        answer.append(block.data(), static_cast<size_t>(got));
    }
    const std::string last = std::to_string(1'000'000 + kMany - 1);
    EXPECT_NE(answer.find("|" + last + "n"), std::string::npos) << "fewer than announced";
}

}  // namespace
