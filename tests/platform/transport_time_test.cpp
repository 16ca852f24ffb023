// The transport's time: how long a request may take, and how another thread ends it.
#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <functional>
#include <iterator>
#include <string>
#include <thread>

#include "platform/ws.h"
#include "tests/support/folder.h"
#include "tests/support/loopback.h"
#include "tests/support/raw_server.h"
#include "tests/support/transport_client.h"

namespace {

using std::chrono::milliseconds;

/// Does something after a while, in a thread that ends with the object.
class Later {
  public:
    Later(int ms, std::function<void()> action)
        : thread_([ms, action = std::move(action)] {
              std::this_thread::sleep_for(milliseconds(ms));
              action();
          }) {}
    ~Later() { thread_.join(); }

  private:
    std::thread thread_;
};

// A response time-out of a second, and transfers that take several.
TEST(TransportTime, LimitsSilenceAndNotTheWholeTransfer) {
    const std::string head = kHead + "Content-Length: 3000000\r\n\r\n";
    const struct {
        const char* name;
        Reply reply;
        uint32_t status;
        double atLeast, atMost;
    } table[] = {
        {"3 MB at 1 MB/s", {head, kOpen, 0, 3'000'000, 1000}, 0, 1.5, 30},
        {"a byte now and then",
         {head + std::string(9000, 'x'), kOpen, 0, 0, 1},
         WS_STATUS_TIMED_OUT,
         0.9,
         2.5},
        {"silent", {"", kOpen, 3000, 0}, WS_STATUS_TIMED_OUT, 0.9, 2.5},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.name);
        RawServer server;
        Transport transport(server.url(), 1);
        server.queue(row.reply);
        const auto start = Clock::now();
        EXPECT_EQ(transport.get(), row.status);
        EXPECT_GE(secondsSince(start), row.atLeast);
        EXPECT_LT(secondsSince(start), row.atMost);
    }
}

// Far more than the system's buffers hold, to a server that reads 6 MB/s; and as much as they hold,
// to one that needs several response time-outs to read it.
TEST(TransportTime, WaitsForAServerThatReadsSlowly) {
    const struct {
        size_t size;
        int pauseMs;
        int64_t timeout;
    } table[] = {{30'000'000, 10, 2}, {2'000'000, 100, 1}};
    for (const auto& row : table) {
        RawServer server;
        server.readSlowly(row.pauseMs);
        Transport transport(server.url(), row.timeout);
        const std::string text(row.size, 'x');
        const auto start = Clock::now();
        EXPECT_EQ(WSRequestPOST(transport, WS_SERVICE_METABASE, &transport.result, 1, text.c_str(),
                                "addlist"),
                  0U);
        EXPECT_GT(secondsSince(start), 2.5);
    }
}

TEST(TransportTime, WaitsForAServerThatIsBusyOrDown) {
    RawServer server({answer("503 Busy", "text/plain", "x"), kOpen, 0, 0});
    Transport transport(server.url());
    transport.reconnect(1);
    int64_t used = 0;
    for (const uint32_t status : {kBad, uint32_t{WS_STATUS_NO_CONNECT}}) {
        const auto start = Clock::now();
        EXPECT_EQ(transport.get(), status);
        EXPECT_GT(secondsSince(start), 0.9);
        EXPECT_LT(secondsSince(start), 2);
        server.refuse();
        // Only a request that was sent counts as use.
        if (status == kBad) used = WSGetLastUseTime(transport);
    }
    EXPECT_EQ(WSGetLastUseTime(transport), used);
    server.queue({textAnswer("ok"), kOpen, 0, 0});
    transport.reconnect(10);
    std::thread later([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        server.listen();
    });
    EXPECT_EQ(transport.get(), 0U);
    EXPECT_GT(WSGetLastUseTime(transport), used);
    later.join();
    // A request whose first attempt alone was sent.
    used = WSGetLastUseTime(transport);
    server.queue({answer("503 Busy", "text/plain", "x"), Reply::Vanishes, 1100, 0});
    transport.reconnect(1);
    EXPECT_EQ(transport.get(), kCut);
    EXPECT_GT(WSGetLastUseTime(transport), used);
}

// A machine that is down does not refuse: it says nothing. Nor does one whose queue is full.
TEST(TransportTime, WaitsForAServerThatDoesNotAnswerTheConnect) {
    uint16_t port = 0;
    const int listener = loopback::listenOn(port, 0);
    int waiting[4];
    for (int& fd : waiting)
        fd = loopback::connectTo(port, SOCK_NONBLOCK);
    Transport transport("http://127.0.0.1:" + std::to_string(port), 1);
    for (const int64_t reconnect : {0, 1}) {
        transport.reconnect(reconnect);
        const auto start = Clock::now();
        EXPECT_EQ(transport.get(), WS_STATUS_CONNECT_TIMED_OUT);
        EXPECT_GE(secondsSince(start), 0.9 * (1 + static_cast<double>(reconnect)));
        EXPECT_LT(secondsSince(start), 3 + static_cast<double>(reconnect));
    }
    for (const int fd : waiting)
        close(fd);
    close(listener);
}

std::atomic<WSTransport*> victim = nullptr;
std::atomic<Clock::time_point> aborted;

void abortVictim(int) {
    aborted = Clock::now();
    errno = 77;
    if (WSAbort(victim) != 0 || errno != 77) _exit(1);
}

// From another thread and from a signal handler, wherever the request is; the next one works.
TEST(TransportTime, EndsARequestThatIsAborted) {
    const struct {
        const char* name;
        std::string reply;
        bool refused;
    } table[] = {
        {"no answer", "", false},
        {"half an answer", kHead + "Content-Length: 9\r\n\r\nabc", false},
        {"a long pause", "HTTP/1.1 429 Slow\r\nRetry-After: 9\r\nContent-Length: 0\r\n\r\n", false},
        {"no server", "", true}};
    signal(SIGALRM, abortVictim);
    for (int i = 0; i < 2 * static_cast<int>(std::size(table)); ++i) {
        const auto& row = table[i / 2];
        SCOPED_TRACE(row.name);
        RawServer server({textAnswer("next"), kOpen, 0, 0});
        Transport transport(server.url(), 20);
        transport.reconnect(20);
        victim = transport;
        abortVictim(0);  // while no request is under way
        if (row.refused) {
            server.refuse();
        } else {
            server.queue({row.reply, kOpen, row.reply.empty() ? 1000 : 0, 0});
        }
        {
            const Later later(300,
                              [=] { i % 2 == 0 ? abortVictim(0) : void(kill(getpid(), SIGALRM)); });
            EXPECT_EQ(transport.get(), WS_STATUS_ABORTED);
        }
        EXPECT_LT(secondsSince(aborted), 0.1);
        if (row.refused) server.listen();
        EXPECT_EQ(transport.get(), 0U);
        EXPECT_EQ(transport.data(), "next");
    }
    signal(SIGALRM, SIG_DFL);
}

/// Puts the process into a network of its own, whose only name server never answers. False where
/// the system does not allow that.
bool enterSilentNetwork(const std::string& folder) {
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0 &&
        unshare(CLONE_NEWUSER | CLONE_NEWNET | CLONE_NEWNS) != 0)
        return false;
    const int names = socket(AF_INET, SOCK_DGRAM, 0);
    ifreq loopback{};
    snprintf(loopback.ifr_name, sizeof loopback.ifr_name, "lo");
    loopback.ifr_flags = IFF_UP;
    const sockaddr_in address = loopback::addressOf(53);
    if (ioctl(names, SIOCSIFFLAGS, &loopback) != 0 ||
        bind(names, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return false;
    const std::string file = folder + "/resolv.conf";
    FILE* configuration = fopen(file.c_str(), "w");
    fputs("nameserver 127.0.0.1\noptions timeout:10 attempts:2\n", configuration);
    fclose(configuration);
    return mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount(file.c_str(), "/etc/resolv.conf", nullptr, MS_BIND, nullptr) == 0;
}

/// How long requests take whose name is never resolved.
void resolveNothing() {
    setenv("KSPOOL_ALLOW_PLAINTEXT", "1", 1);
    const struct {
        int64_t response, reconnect;
        int abortMs;
        uint32_t status;
        double seconds;
    } table[] = {{1, 0, 0, WS_STATUS_CONNECT_TIMED_OUT, 1},
                 {1, 1, 0, WS_STATUS_CONNECT_TIMED_OUT, 2},
                 {20, 0, 300, WS_STATUS_ABORTED, 0.3}};
    for (const auto& row : table) {
        Transport transport("http://pool.example", row.response);
        transport.reconnect(row.reconnect);
        const auto start = Clock::now();
        {
            const Later later(row.abortMs, [&] {
                if (row.abortMs > 0) WSAbort(transport);
            });
            EXPECT_EQ(transport.get(), row.status);
        }
        EXPECT_GE(secondsSince(start), 0.9 * row.seconds);
        EXPECT_LT(secondsSince(start), row.seconds + 0.5);
    }
}

TEST(TransportTime, HoldsDuringNameResolution) {
    const Folder folder;
    const pid_t child = fork();
    if (child == 0) {
        if (!enterSilentNetwork(folder.path)) _exit(77);
        resolveNothing();
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "no private network can be made here";
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
