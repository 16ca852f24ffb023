// Whole sessions: the library, the transport and a server in the same process, over http and TLS.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>

#include "cr_status.h"
#include "mb.h"
#include "mb/mb_int.h"
#include "platform/support.h"
#include "platform/ws.h"
#include "sandbox/sandbox.h"

namespace {

using Clock = std::chrono::steady_clock;

#ifdef __SANITIZE_ADDRESS__  // freed memory stays resident for a while
constexpr uint64_t kMostGrowth = 256 << 20;
#else
constexpr uint64_t kMostGrowth = 16 << 20;
#endif

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
        char name[] = "/tmp/kspool-session-XXXXXX";
        folder = mkdtemp(name);
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
        std::filesystem::remove_all(folder);
    }
    std::string folder;
    std::string said;
};
auto* const witness =
    static_cast<Witness*>(testing::AddGlobalTestEnvironment(new Witness));  // gtest owns it

/// A pool with its folder, its server and a way to open sessions.
class Pool {
  public:
    explicit Pool(bool tls) : folder_(witness->folder + (tls ? "/tls" : "/http")) {
        std::filesystem::remove_all(folder_);
        sandbox::setUp({folder_, tls ? "https://127.0.0.1:1" : "http://127.0.0.1:1", tls});
        settings = sandbox::readSetup(folder_);
        settings.port = 0;
        settings.accounts = {{"canary", kCanary, {"read", "write", "delete"}},
                             {"reader", "r", {"read"}}};
        server = std::make_unique<sandbox::Server>(settings);
        server->admin("POST", "clock", "1700000000");
    }

    MBSession* open(const char* login = "canary", const char* password = kCanary,
                    std::string config = {}) const {
        if (config.empty()) config = folder_ + "/agent.cfg";
        MBSession* session =
            MBInitWithAgentCfg(server->url().c_str(), 0, login, password, config.c_str());
        EXPECT_NE(session, nullptr);
        WSSetOptVa(session->transport, uint32_t{WS_OPT_RESPONSE_TIMEOUT}, int64_t{2}, uint32_t{0});
        return session;
    }

    sandbox::Settings settings;
    std::unique_ptr<sandbox::Server> server;

  private:
    std::string folder_;
};

class Sessions : public testing::TestWithParam<bool> {
  public:
    Sessions() : pool_(GetParam()), session_(pool_.open()) {}
    ~Sessions() override { MBShutdown(session_); }

  protected:
    std::string listing(const char* path, uint32_t recursive) {
        char* text = nullptr;
        size_t length = 0;
        EXPECT_EQ(MBDirList(session_, path, &text, &length, recursive), 0U);
        const std::string copy = text == nullptr ? "" : text;
        EXPECT_EQ(length, text == nullptr ? 0 : copy.size() + 1);
        free(text);
        return copy;
    }

    static int connections(sandbox::Server& server) {
        const std::string counts = server.admin("GET", "requests");
        const std::string name = "\"connections\":";
        return std::stoi(counts.substr(counts.find(name) + name.size()));
    }
    void order(const std::string& fault) {
        const std::string answer = pool_.server->admin("POST", "faults", "[{" + fault + "}]");
        EXPECT_EQ(answer.find("\"error\""), std::string::npos) << answer;
    }

    Pool pool_;
    MBSession* session_;
};

INSTANTIATE_TEST_SUITE_P(Over, Sessions, testing::Bool(),
                         [](const auto& given) { return given.param ? "tls" : "http"; });

TEST_P(Sessions, DoTheirWork) {
    pool_.server->admin("POST", "tree", R"([{"path":"/in/x","size":5,"mtime":7}])");
    const struct {
        const char* what;
        uint32_t status, expected;
    } table[] = {
        {"mkdir", MBDirCreate(session_, "/a"), 0},
        {"mkdir below", MBDirCreate(session_, "/a/b c%"), 0},
        {"mkdir again", MBDirCreate(session_, "/a"), CR_STATUS_REMOTE_ERROR},
        {"copy a file", MBFileCopy(session_, "/in/x", "/a/y", 0), 0},
        {"copy a full directory", MBFileCopy(session_, "/a", "/c", 0), CR_STATUS_REMOTE_ERROR},
        {"copy all", MBFileCopy(session_, "/a", "/c", 2), 0},
        {"move", MBFileMove(session_, "/a", "/d", 0), 0},
        {"delete a full directory", MBFileDelete(session_, "/c", 0), CR_STATUS_REMOTE_ERROR},
        {"delete all", MBFileDelete(session_, "/c", 1), 0},
        {"delete nothing", MBFileDelete(session_, "/c", 1), CR_STATUS_REMOTE_ERROR},
        {"keep alive", MBKeepAlive(session_, 0), 0},
        {"keep alive later", MBKeepAlive(session_, 1000), 0},
    };
    for (const auto& row : table)
        EXPECT_EQ(row.status, row.expected) << row.what;
    EXPECT_EQ(listing("/", 1),
              "d 0 1700000000 d\nd 0 1700000000 d/b c%\nf 5 7 d/y\n"
              "d 0 1700000000 in\nf 5 7 in/x\n");
    EXPECT_EQ(listing("/d/b c%", 0), "");
    uint32_t time = 0;
    EXPECT_EQ(MBGetTime(session_, &time), 0U);
    EXPECT_EQ(time, 1700000000U);
    EXPECT_EQ(WSArchMode(session_->transport), 1U);
}

/// A PO of a file, with its size in field 16.
std::string po(const std::string& name, int size) {
    return "1|1||0|0|c|p|i|/f|" + name + "|d|f||||" + std::to_string(size) +
           "|0|0|0|0|0|0|0|0|0|\n";
}

TEST_P(Sessions, KeepPOs) {
    const std::string three = po("a", 1) + po("b", 2) + po("[c]", 3);
    EXPECT_EQ(MBPOAddList(session_, 1, three.c_str()), 0U);
    EXPECT_EQ(MBPOImport(session_, 1, po("a", 10).c_str()), 0U);
    EXPECT_EQ(MBPOZELTAddList(session_, 1, (po("b", 20) + po("d", 4)).c_str()), 0U);
    EXPECT_EQ(MBPOExpire(session_, 1, po("d", 99).c_str()), 0U);
    EXPECT_EQ(MBPOAddList(session_, 1, (po("e", 5) + "no PO\n").c_str()), 4U);
    EXPECT_EQ(MBPOAddList(session_, 0, three.c_str()), 4U);

    MBPOFilter filter{};
    filter.size = sizeof filter;
    ASSERT_EQ(MBPOFilterInit(&filter), 0U);
    char* text = nullptr;
    size_t length = 0;
    uint32_t count = 0;
    ASSERT_EQ(MBPOFind(session_, 1, &filter, &text, &length, &count), 0U);
    const std::string all = text;
    free(text);
    EXPECT_EQ(count, 3U);
    EXPECT_EQ(length, all.size() + 1);
    const std::string lines = po("[c]", 3) + po("a", 10) + po("b", 2);
    EXPECT_EQ(all.substr(all.size() - lines.size()), lines);

    const struct {
        const char* name;
        int64_t size;
        uint32_t count;
    } table[] = {{"*", -1, 3}, {"?", -1, 2}, {"[c]", -1, 1}, {"[*", -1, 1}, {"b", 2, 1},
                 {"b", 20, 0}, {"d", -1, 0}, {"*c*", -1, 1}, {"A", -1, 0}};
    for (const auto& row : table) {
        filter.criterion10 = row.name;
        filter.criterion16 = row.size;
        char* line = nullptr;
        MBPOCursor* cursor = MBPOStringFindFirst(session_, 1, &filter, &line, &count);
        EXPECT_EQ(count, row.count) << row.name;
        EXPECT_EQ(cursor != nullptr, row.count > 0) << row.name;
        for (uint32_t i = 1; i < row.count; ++i)
            EXPECT_EQ(MBPOStringFindNext(cursor, &line), 0U);
        EXPECT_EQ(MBPOStringFindNext(cursor, &line),
                  cursor != nullptr ? CR_STATUS_NOT_FOUND : CR_STATUS_INVALID_PARAMETER);
        MBPOFindClose(cursor);
    }
    filter.criterion10 = "b";
    filter.criterion16 = -1;
    PO one{};
    MBPOCursor* cursor = MBPOFindFirst(session_, 1, &filter, &one, nullptr);
    ASSERT_NE(cursor, nullptr);
    EXPECT_EQ(std::string(one.text) + "\n", po("b", 2));
    EXPECT_EQ(MBPOFindNext(cursor, &one), CR_STATUS_NOT_FOUND);
    MBPOFindClose(cursor);
    POReset(&one);
}

TEST_P(Sessions, KeepImages) {
    pool_.server->admin("POST", "dataselections", R"([{"number":1},{"number":2,"tag":"a b|c"}])");
    const auto set = [&](const char* name, uint64_t time, int32_t parent) {
        return MBSetLastImageV2(session_, 1, "c", "p", parent, time, name, -5);
    };
    EXPECT_EQ(set("i1", 100, 0), 0U);
    EXPECT_EQ(set("i2", 200, 7), 0U);
    EXPECT_EQ(MBSetLastImage(session_, 1, "c", "p", 300, "i3", 0, 9, 1), 0U);
    EXPECT_EQ(MBSetLastImageV2(session_, 3, "c", "p", 0, 1, "i", 0), 3001U);
    char* text = nullptr;
    EXPECT_EQ(MBGetLastImages(session_, 1, "c", "", -1, 200, &text), 0U);
    EXPECT_STREQ(text, "300|c|p|0|i3|i3|9|1\n200|c|p|7|i2||0|-5\n");
    free(text);
    EXPECT_EQ(MBDeleteImage(session_, 1, "c", "p", "i1", 0), 0U);
    EXPECT_EQ(MBDeleteImage(session_, 1, "c", "p", "i1", 0), 3003U);

    MBImageRetentionInfo info{};
    EXPECT_EQ(MBGetImageRetention(session_, 1, "c", "p", "i2", &info), 4U);
    EXPECT_EQ(MBSetImageRetention(session_, 1, "c", "p", "i2", 3, -2, 86400), 0U);
    EXPECT_EQ(MBGetImageRetention(session_, 1, "c", "p", "i2", &info), 0U);
    EXPECT_EQ(info.retentionValue1, 86400);
    EXPECT_EQ(info.retentionValue2, -2);
    EXPECT_EQ(info.retentionValue3, 3);
    EXPECT_EQ(info.retentionValue4, 1700000000);
    EXPECT_EQ(MBFindImagePolicy(session_, 1, "c", "i2", &text), 0U);
    EXPECT_STREQ(text, "p");
    free(text);

    const struct {
        uint32_t selection, status;
        int32_t digit;
        const char* tag;
    } tags[] = {{1, 0, 0, nullptr}, {2, 0, 1, "a b|c"}, {3, 4, 0, nullptr}};
    for (const auto& row : tags) {
        int32_t digit = 0;
        EXPECT_EQ(MBGetHVXTag(session_, row.selection, &digit, &text), row.status);
        EXPECT_EQ(digit, row.digit);
        EXPECT_STREQ(text, row.tag);
        free(text);
    }
}

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
        {R"("kind":"delay","ms":500)", 0, 0},
        {R"("kind":"reset")", kCut, kCut},
        {R"("kind":"lose")", kCut, kCut},
        {R"("kind":"cut")", kCut, kCut},
        {R"("kind":"stall","ms":4000)", WS_STATUS_TIMED_OUT, WS_STATUS_TIMED_OUT},
        {R"("kind":"oversize","bytes":100000000)", WS_STATUS_TOO_LARGE, WS_STATUS_TOO_LARGE},
        {R"("kind":"garbage")", kBad, kCut},
        {R"("kind":"nul")", kBad, kBad},
        {R"("kind":"unbounded")", kBad, kBad},
        {R"("kind":"type")", kBad, kBad},
        {R"("kind":"status","code":500)", kBad, kBad},
        {R"("kind":"redirect","location":"http://127.0.0.1:9/")", kBad, kBad},
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
        EXPECT_LT(Clock::now() - start, std::chrono::seconds(3));
        EXPECT_LT(OSGetRSS(), before + kMostGrowth);
        pool_.server->admin("DELETE", "faults");
        EXPECT_EQ(MBGetTime(session_, &time), 0U);
        EXPECT_EQ(time, 1700000000U);
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
    sandbox::Server other(settings);
    const auto ask = [&](const std::string& url) {
        uint32_t time = 0;
        const KSOption option{KS_OPT_MBS_URL, {.text = url.c_str()}};
        EXPECT_EQ(MBOptionsSet(session_, &option, 1), 0U);
        EXPECT_EQ(MBGetTime(session_, &time), 0U);
    };
    ask(other.url());
    ask(pool_.server->url());
    uint32_t time = 0;
    const pid_t child = fork();
    if (child == 0) {
        const uint32_t status = MBGetTime(session_, &time);
        MBShutdown(session_);
        _exit(status == WS_STATUS_FORKED ? 0 : 1);
    }
    int status = 1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    ask(pool_.server->url());
    ask(other.url());
    EXPECT_EQ(connections(*pool_.server), 1);
    EXPECT_EQ(connections(other), 1);
}

TEST_P(Sessions, KeepOneConnection) {
    uint32_t time = 0, failed = 0;
    for (int i = 0; i < 10000; ++i)
        failed += MBGetTime(session_, &time) == 0 ? 0 : 1;
    EXPECT_EQ(failed, 0U);
    EXPECT_EQ(connections(*pool_.server), 1);
}

TEST(SessionTls, IsNotMadeWithoutTheRightKeys) {
    const Pool pool(true);
    const std::string folder = witness->folder + "/stranger";
    sandbox::setUp({folder, "https://127.0.0.1:1", true});
    // A server that nobody vouches for, a client that nobody vouches for, and no keys at all.
    const std::string ours = witness->folder + "/tls/tls/client/", theirs = folder + "/tls/client/";
    const struct {
        std::string authority, pair;
    } table[] = {{theirs, ours}, {ours, theirs}, {"", ""}};
    for (const auto& row : table) {
        const std::string keys = folder + "/mixed", config = folder + "/mixed.cfg";
        std::filesystem::remove_all(keys);
        std::filesystem::create_directory(keys);
        if (!row.pair.empty()) {
            std::filesystem::copy(row.authority + "ca.pem", keys);
            std::filesystem::copy(row.pair + "cert.pem", keys);
            std::filesystem::copy(row.pair + "key.pem", keys);
        }
        std::ofstream(config) << "[paths]\nssl-key = " << keys << "\n";
        MBSession* session = pool.open("canary", kCanary, config);
        uint32_t time = 0;
        const uint32_t status = MBGetTime(session, &time);
        // A server may let a stranger's handshake end before it closes.
        EXPECT_TRUE(status == WS_STATUS_TLS || (row.pair == theirs && status == WS_STATUS_CUT))
            << status;
        MBShutdown(session);
    }
    const Pool plain(false);
    const std::string url = "https" + plain.server->url().substr(4);
    const KSOption option{KS_OPT_MBS_URL, {.text = url.c_str()}};
    MBSession* session = plain.open();
    EXPECT_EQ(MBOptionsSet(session, &option, 1), 0U);
    EXPECT_EQ(MBKeepAlive(session, 0), WS_STATUS_TLS);
    MBShutdown(session);
}

}  // namespace
