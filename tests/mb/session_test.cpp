// Whole sessions: the library, the transport and a server in the same process, over http and TLS.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>

#include "cr_status.h"
#include "mb.h"
#include "mb/mb_int.h"
#include "platform/support.h"
#include "platform/ws.h"
#include "tests/support/folder.h"
#include "tests/support/served_pool.h"

namespace {

using Clock = std::chrono::steady_clock;

#ifdef KSPOOL_SANITIZED  // freed memory stays resident for a while
constexpr uint64_t kMostGrowth = 256 << 20;
#else
constexpr uint64_t kMostGrowth = 16 << 20;
#endif

/// Descriptors that a program which this process starts would get, but the pairs by which libcurl
/// wakes itself: it makes and keeps them on its own, and no data go over them.
std::set<int> inherited() {
    std::set<int> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int fd = std::stoi(entry.path().filename());
        sockaddr address{};
        socklen_t length = sizeof address;
        const bool isPair = getpeername(fd, &address, &length) == 0 && address.sa_family == AF_UNIX;
        if (!isPair && (fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0) found.insert(fd);
    }
    return found;
}
const std::set<int> atStart = inherited();

/// Files that were opened, also those that were closed at once, and those left to other programs.
std::atomic<int> opened = 0, inheritable = 0;

/// It must be found nowhere. The characters make its encodings differ.
constexpr char kCanary[] = "c4n4ry/+?&= w0rd";
const std::map<std::string, std::string> kCanaryForms = {
    {"plain", kCanary},
    {"base64", "YzRuNHJ5Lys/Jj0gdzByZA"},
    {"base64 with login", "Y2FuYXJ5OmM0bjRyeS8rPyY9IHcwcm"},
    {"URL-encoded", "c4n4ry%2F%2B%3F%26%3D%20w0rd"},
    {"hexadecimal", "63346e3472792f2b3f263d2077307264"}};

std::string canaryIn(const std::string& text) {
    for (const auto& [form, canary] : kCanaryForms) {
        if (text.find(canary) != std::string::npos) return form;
    }
    return {};
}

/// All that was said in this program, with traces, and a folder for all that was written.
class Witness : public testing::Environment {
  public:
    void SetUp() override {
        std::filesystem::create_directory(folder + "/here");
        std::filesystem::current_path(folder + "/here");
        for (const char* name : {"HOME", "TMPDIR"})
            setenv(name, (folder + "/here").c_str(), 1);
        qlxSetSink([](uint32_t, uint32_t, const char* text,
                      void* all) { static_cast<std::string*>(all)->append(text).append("\n"); },
                   &said);
        *__qlxlog_trace_location() = 1;
    }
    void TearDown() override {
        qlxSetSink(nullptr, nullptr);
        char message[4096];
        qlxGetFatalError(nullptr, 0, message, sizeof message);
        EXPECT_NE(said.find("MB Response"), std::string::npos);
        EXPECT_EQ(canaryIn(said + message), "") << "in a message";
        size_t files = 0;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
            if (!entry.is_regular_file()) continue;
            ++files;
            std::ifstream stream(entry.path(), std::ios::binary);
            const std::string text((std::istreambuf_iterator<char>(stream)), {});
            EXPECT_EQ(canaryIn(text), "") << "in " << entry.path();
        }
        EXPECT_GE(files, 3U);
        EXPECT_TRUE(std::filesystem::is_empty(folder + "/here"));
        EXPECT_GT(opened, 0);
        EXPECT_EQ(inheritable, 0);
    }
    const Folder made;
    const std::string& folder = made.path;
    std::string said;
};
auto* const witness =
    static_cast<Witness*>(testing::AddGlobalTestEnvironment(new Witness));  // gtest owns it

/// A pool with its folder, its server and a way to open sessions.
class Pool {
  public:
    explicit Pool(bool tls) : folder_(witness->folder + (tls ? "/tls" : "/http")) {
        sandbox::setUp({folder_, tls ? "https://127.0.0.1:1" : "http://127.0.0.1:1", tls, false});
        settings = sandbox::readSetup(folder_);
        settings.port = 0;
        settings.sync = false;
        settings.accounts = {{"canary", kCanary, {"read", "write", "delete"}},
                             {"reader", "r", {"read"}}};
        server = servedPool(settings);
    }

    MBSession* open(const char* login = "canary", const char* password = kCanary,
                    std::string config = {}) const {
        if (config.empty()) config = folder_ + "/agent.cfg";
        MBSession* session =
            MBInitWithAgentCfg(server->url().c_str(), 0, login, password, config.c_str());
        EXPECT_NE(session, nullptr);
        WSSetOptVa(session->transport, uint32_t{WS_OPT_RESPONSE_TIMEOUT}, int64_t{1}, uint32_t{0});
        return session;
    }

    sandbox::Settings settings;
    std::unique_ptr<sandbox::Server> server;

  private:
    std::string folder_;
};

/// The one over http or TLS, empty.
Pool& emptyPool(bool tls) {
    static Pool pools[] = {Pool(false), Pool(true)};
    pools[tls].server->admin("POST", "reset");
    pools[tls].server->admin("POST", "clock", "1700000000");
    return pools[tls];
}

class Sessions : public testing::TestWithParam<bool> {
  public:
    Sessions() : pool_(emptyPool(GetParam())), session_(pool_.open()) {}
    ~Sessions() override { MBShutdown(session_); }

  protected:
    static int connections(sandbox::Server& server) {
        const std::string counts = server.admin("GET", "requests");
        const std::string name = "\"connections\":";
        return std::stoi(counts.substr(counts.find(name) + name.size()));
    }
    void order(const std::string& fault) {
        const std::string answer = pool_.server->admin("POST", "faults", "[{" + fault + "}]");
        EXPECT_EQ(answer.find("\"error\""), std::string::npos) << answer;
    }

    Pool& pool_;
    MBSession* session_;
};

INSTANTIATE_TEST_SUITE_P(Over, Sessions, testing::Bool(),
                         [](const auto& given) { return given.param ? "tls" : "http"; });

TEST_P(Sessions, HaveThePermissionsOfTheirLogin) {
    const struct {
        const char *login, *password;
        uint32_t reads, writes;
    } table[] = {{"canary", kCanary, 0, 0},
                 {"reader", "r", 0, 106},
                 {"reader", "wrong", 106, 106},
                 {"nobody", "r", 106, 106},
                 {nullptr, nullptr, 106, 106}};
    for (const auto& row : table) {
        MBSession* session = pool_.open(row.login, row.password);
        uint32_t time = 0;
        EXPECT_EQ(MBGetTime(session, &time), row.reads);
        EXPECT_EQ(MBDirCreate(session, "/a"), row.writes);
        // A login that is given later holds with the next option that refreshes the transport.
        EXPECT_EQ(MBAuthenticate(session, "canary", kCanary), 0U);
        EXPECT_EQ(MBGetTime(session, &time), row.reads);
        KSOption again{KS_OPT_WS_7, {1}};
        EXPECT_EQ(MBOptionsSet(session, &again, 1), 0U);
        EXPECT_EQ(MBFileDelete(session, "/a", 0), row.writes == 0 ? 0U : 4U);
        MBShutdown(session);
    }
}

TEST_P(Sessions, SurviveWhatAServerMayDo) {
    constexpr uint32_t kBad = WS_STATUS_BAD_ANSWER, kCut = WS_STATUS_CUT;
    const struct {
        const char* fault;
        uint32_t http, tls;
    } table[] = {
        {R"("kind":"delay","ms":200)", 0, 0},
        {R"("kind":"reset")", kCut, kCut},
        {R"("kind":"lose")", kCut, kCut},
        {R"("kind":"cut")", kCut, kCut},
        {R"("kind":"stall","ms":3000)", WS_STATUS_TIMED_OUT, WS_STATUS_TIMED_OUT},
        {R"("kind":"oversize","bytes":100000000)", WS_STATUS_TOO_LARGE, WS_STATUS_TOO_LARGE},
        {R"("kind":"garbage")", kBad, kCut},
        {R"("kind":"status","code":500)", kBad, kBad},
        {R"("kind":"event","code":77,"description":null)", 4, 4},
        {R"("kind":"event","code":77,"description":"no Permission")", 106, 106},
        {R"("kind":"bad-event")", kBad, kBad},
    };
    WSSetAnswerLimit(8 << 20);
    uint32_t time = 0;
    ASSERT_EQ(MBGetTime(session_, &time), 0U);
    for (const auto& row : table) {
        SCOPED_TRACE(row.fault);
        order(std::string("\"times\":9,") + row.fault);
        const uint64_t before = OSGetRSS();
        const auto start = Clock::now();
        EXPECT_EQ(MBGetTime(session_, &time), GetParam() ? row.tls : row.http);
        EXPECT_LT(Clock::now() - start, std::chrono::seconds(2));
        EXPECT_LT(OSGetRSS(), before + kMostGrowth);
        pool_.server->admin("DELETE", "faults");
        EXPECT_EQ(MBGetTime(session_, &time), 0U);
        EXPECT_EQ(time, 1700000000U);
        EXPECT_EQ(inherited(), atStart);
    }
}

// The server acts and the connection dies before its answer: the request is sent again, and the
// server knows it.
TEST_P(Sessions, ApplyAResentRequestOnce) {
    for (int i = 0; i < 20; ++i) {
        const std::string path = "/once" + std::to_string(i);
        order(R"("kind":"lose")");
        EXPECT_EQ(MBDirCreate(session_, path.c_str()), i == 0 ? uint32_t{WS_STATUS_CUT} : 0U) << i;
        EXPECT_EQ(MBDirCreate(session_, path.c_str()), 4U);
    }
}

// A child that ends its copy of a session says no word on the connection, which TLS would like to.
TEST_P(Sessions, AreTheParents) {
    sandbox::Settings settings = pool_.settings;
    settings.database.clear();
    const auto other = servedPool(settings);
    const auto ask = [&](const std::string& url) {
        uint32_t time = 0;
        const KSOption option{KS_OPT_MBS_URL, {.text = url.c_str()}};
        EXPECT_EQ(MBOptionsSet(session_, &option, 1), 0U);
        EXPECT_EQ(MBGetTime(session_, &time), 0U);
    };
    ask(other->url());
    ask(pool_.server->url());
    uint32_t time = 0;
    const pid_t child = fork();
    if (child == 0) {
        const uint32_t status = MBGetTime(session_, &time);
        MBShutdown(session_);
        _exit(status == WS_STATUS_FORKED && inheritable == 0 ? 0 : 1);
    }
    int status = 1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    ask(pool_.server->url());
    ask(other->url());
    EXPECT_EQ(connections(*pool_.server), 1);
    EXPECT_EQ(connections(*other), 1);
}

// A server that nobody vouches for or that has another name, a client that nobody vouches for, and
// no keys at all: nothing is said to them. The last row is in order.
TEST(SessionTls, IsNotMadeWithoutTheRightKeys) {
    const Pool& pool = emptyPool(true);
    const std::string folder = witness->folder + "/stranger", keys = folder + "/mixed";
    sandbox::setUp({folder, "https://127.0.0.1:1", true, false});
    std::ofstream(folder + "/mixed.cfg") << "[paths]\nssl-key = " << keys << "\n";
    const std::string ours = witness->folder + "/tls/tls/client/", theirs = folder + "/tls/client/";
    const std::string port = pool.server->url().substr(strlen("https://127.0.0.1"));
    const struct {
        std::string host, authority, pair;
        bool made = false;
    } table[] = {{"127.0.0.1", theirs, ours},
                 {"else.localhost", ours, ours},
                 {"127.0.0.1", ours, theirs},
                 {"127.0.0.1", "", ""},
                 {"localhost", ours, ours, true}};
    for (const auto& row : table) {
        std::filesystem::remove_all(keys);
        std::filesystem::create_directory(keys);
        if (!row.pair.empty()) {
            std::filesystem::create_symlink(row.authority + "ca.pem", keys + "/ca.pem");
            std::filesystem::create_symlink(row.pair + "cert.pem", keys + "/cert.pem");
            std::filesystem::create_symlink(row.pair + "key.pem", keys + "/key.pem");
        }
        MBSession* session = pool.open("canary", kCanary, folder + "/mixed.cfg");
        const std::string url = "https://" + row.host + port;
        const KSOption option{KS_OPT_MBS_URL, {.text = url.c_str()}};
        EXPECT_EQ(MBOptionsSet(session, &option, 1), 0U);
        uint32_t time = 0;
        const uint32_t status = MBGetTime(session, &time);
        // A server may let a stranger's handshake end before it closes.
        EXPECT_TRUE(row.made ? status == 0
                             : status == WS_STATUS_TLS ||
                                   (row.pair == theirs && status == WS_STATUS_CUT))
            << row.host << row.authority << row.pair << ": " << status;
        MBShutdown(session);
    }
    EXPECT_NE(pool.server->admin("GET", "requests").find("\"total\":1,"), std::string::npos);
}

TEST(SessionTls, IsNotMadeWithAServerThatHasNone) {
    const Pool& plain = emptyPool(false);
    const std::string url = "https" + plain.server->url().substr(4);
    const KSOption option{KS_OPT_MBS_URL, {.text = url.c_str()}};
    MBSession* session = plain.open();
    EXPECT_EQ(MBOptionsSet(session, &option, 1), 0U);
    EXPECT_EQ(MBKeepAlive(session, 0), WS_STATUS_TLS);
    MBShutdown(session);
}

}  // namespace

// Takes the place of the system's open(), for the libraries as well. Where buffers are checked, the
// header has a definition of its own, hence the other name.
extern "C" [[gnu::visibility("default")]] int openSeen(const char* path, int flags,
                                                       mode_t mode) __asm__("open");
extern "C" int openSeen(const char* path, int flags, mode_t mode) {
    ++opened;
    if ((flags & O_CLOEXEC) == 0) ++inheritable;
    return openat(AT_FDCWD, path, flags, mode);
}
