// Sessions with the real transport under failing calls: every allocation of ours and of libcurl,
// and every call on a socket, fails in turn, once and from then on.
#include <curl/curl.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <new>
#include <string>
#include <tuple>

#include "common/diagnostics.h"
#include "mb.h"
#include "mb/mb_int.h"
#include "tests/support/sandbox_process.h"

namespace hooks {

enum Call {
    kNew,
    kOurs,
    kMalloc,
    kCalloc,
    kRealloc,
    kStrdup,
    kConnect,
    kSend,
    kRecv,
    kPoll,
    kCalls
};
constexpr std::array<const char*, kCalls> kNames = {"new",
                                                    "calloc, realloc, strdup",
                                                    "libcurl's malloc",
                                                    "libcurl's calloc",
                                                    "libcurl's realloc",
                                                    "libcurl's strdup",
                                                    "connect",
                                                    "send",
                                                    "recv",
                                                    "poll"};

std::array<size_t, kCalls> made;
size_t nth = 0;  ///< the call that fails; 0: none
bool fromThenOn = false;
size_t seen = 0;
size_t failed = 0;
long live = 0;  ///< allocations of libcurl and of C++ that were not released
thread_local bool armed = false;

bool fails(Call call) {
    if (!armed) return false;
    ++made[call];
    ++seen;
    if (nth == 0 || seen < nth || (seen > nth && !fromThenOn)) return false;
    ++failed;
    errno = call >= kConnect ? ECONNRESET : ENOMEM;
    return true;
}

void* counted(void* memory) {
    if (memory != nullptr) ++live;
    return memory;
}

/// Kept whole: inlined into delete, the compiler takes the pair of new and free for a mistake.
__attribute__((noinline)) void release(void* memory) {
    if (memory != nullptr) --live;
    free(memory);
}

template <typename Function>
Function next(const char* name, Function) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace hooks

using namespace hooks;

// Of all libraries, which find the program's symbols first.
#pragma GCC visibility push(default)

void* operator new(size_t size) {
    void* memory = fails(kNew) ? nullptr : malloc(size);
    if (memory == nullptr) throw std::bad_alloc();
    return counted(memory);
}
void operator delete(void* memory) noexcept {
    release(memory);
}
void operator delete(void* memory, size_t) noexcept {
    release(memory);
}

extern "C" {

void* __real_calloc(size_t, size_t);
void* __real_realloc(void*, size_t);
char* __real_strdup(const char*);
char* __real_strndup(const char*, size_t);

void* __wrap_calloc(size_t count, size_t size) {
    return fails(kOurs) ? nullptr : __real_calloc(count, size);
}
void* __wrap_realloc(void* old, size_t size) {
    return fails(kOurs) ? nullptr : __real_realloc(old, size);
}
char* __wrap_strdup(const char* text) {
    return fails(kOurs) ? nullptr : __real_strdup(text);
}
char* __wrap_strndup(const char* text, size_t most) {
    return fails(kOurs) ? nullptr : __real_strndup(text, most);
}

int connect(int fd, const sockaddr* address, socklen_t length) {
    static const auto real = next("connect", connect);
    return fails(kConnect) ? -1 : real(fd, address, length);
}
ssize_t send(int fd, const void* bytes, size_t length, int flags) {
    static const auto real = next("send", send);
    return fails(kSend) ? -1 : real(fd, bytes, length, flags);
}
ssize_t recv(int fd, void* bytes, size_t length, int flags) {
    static const auto real = next("recv", recv);
    return fails(kRecv) ? -1 : real(fd, bytes, length, flags);
}
int poll(pollfd* fds, nfds_t count, int timeout) {
    static const auto real = next("poll", poll);
    return fails(kPoll) ? -1 : real(fds, count, timeout);
}

}  // extern "C"

#pragma GCC visibility pop

namespace {

void* curlMalloc(size_t size) {
    return fails(kMalloc) ? nullptr : counted(malloc(size));
}
void* curlCalloc(size_t count, size_t size) {
    return fails(kCalloc) ? nullptr : counted(__real_calloc(count, size));
}
void* curlRealloc(void* old, size_t size) {
    if (fails(kRealloc)) return nullptr;
    void* memory = __real_realloc(old, size);
    return old == nullptr ? counted(memory) : memory;
}
char* curlStrdup(const char* text) {
    return fails(kStrdup) ? nullptr : static_cast<char*>(counted(__real_strdup(text)));
}

constexpr char kPO[] = "1|1||0|0|c|p|i|/f|n|d|f||||1|0|0|0|0|0|0|0|0|0|\n";

/// A server with its folder, over http or TLS with a client's certificate.
class Pool {
  public:
    explicit Pool(bool tls) {
        char name[] = "/tmp/kspool-torture-XXXXXX";
        folder_ = mkdtemp(name);
        const std::string made = folder_ + "/pool";
        sandbox::setUp({made, tls ? "https://127.0.0.1:1" : "http://127.0.0.1:1", tls});
        sandbox::Settings settings = sandbox::readSetup(made);
        settings.port = 0;
        settings.accounts = {{"me", "secret", {"read", "write", "delete"}}};
        config = made + "/agent.cfg";
        server_ = std::make_unique<SandboxProcess>(settings);
        url = server_->url;
    }
    ~Pool() { std::filesystem::remove_all(folder_); }
    std::string url, config;

  private:
    std::string folder_;
    std::unique_ptr<SandboxProcess> server_;
};

std::array<std::unique_ptr<Pool>, 2> pools;  ///< http, TLS
const Pool* pool = nullptr;

MBSession* open() {
    MBSession* session =
        MBInitWithAgentCfg(pool->url.c_str(), 0, "me", "secret", pool->config.c_str());
    if (session == nullptr) return nullptr;
    MBEnableResiliency(session, 0);
    return session;
}

MBPOFilter everything() {
    MBPOFilter filter{};
    filter.size = sizeof filter;
    MBPOFilterInit(&filter);
    return filter;
}

/// A text that an operation gave, for as long as its caller looks at it.
struct Text {
    ~Text() { free(text); }
    char* text = nullptr;
};

uint32_t addOne(MBSession* s) {
    return MBPOAddList(s, 1, kPO);
}
uint32_t find(MBSession* s) {
    const MBPOFilter filter = everything();
    const Text found;
    return MBPOFind(s, 1, &filter, const_cast<char**>(&found.text), nullptr, nullptr);
}
uint32_t walkLines(MBSession* s) {
    const MBPOFilter filter = everything();
    char* line = nullptr;
    MBPOCursor* cursor = MBPOStringFindFirst(s, 1, &filter, &line, nullptr);
    const uint32_t status = cursor != nullptr ? uint32_t{CR_STATUS_OK} : kspool::statusSlot();
    MBPOFindClose(cursor);
    return status;
}
uint32_t walkPOs(MBSession* s) {
    const MBPOFilter filter = everything();
    PO po{};
    MBPOCursor* cursor = MBPOFindFirst(s, 1, &filter, &po, nullptr);
    const uint32_t status = cursor != nullptr ? uint32_t{CR_STATUS_OK} : kspool::statusSlot();
    MBPOFindClose(cursor);
    POReset(&po);
    return status;
}
uint32_t list(MBSession* s) {
    Text text;
    return MBDirList(s, "/", &text.text, nullptr, 1);
}
uint32_t images(MBSession* s) {
    Text text;
    return MBGetLastImages(s, 1, "c", "p", -1, 0, &text.text);
}
uint32_t policy(MBSession* s) {
    Text text;
    return MBFindImagePolicy(s, 1, "c", "i", &text.text);
}
uint32_t tag(MBSession* s) {
    Text text;
    int32_t digit = 0;
    return MBGetHVXTag(s, 1, &digit, &text.text);
}
uint32_t retention(MBSession* s) {
    MBImageRetentionInfo info{};
    return MBGetImageRetention(s, 1, "c", "p", "i", &info);
}
uint32_t setOptions(MBSession* s) {
    const KSOption option{KS_OPT_MBS_URL, {.text = pool->url.c_str()}};
    return MBOptionsSet(s, &option, 1);
}
uint32_t openAnother(MBSession*) {
    MBSession* session = open();
    const uint32_t status = session != nullptr ? uint32_t{CR_STATUS_OK} : kspool::statusSlot();
    MBShutdown(session);
    return status;
}
uint32_t askTime(MBSession* s) {
    uint32_t time = 0;
    const uint32_t status = MBGetTime(s, &time);
    EXPECT_TRUE(status != CR_STATUS_OK || time >= 1700000000U);
    return status;
}

/// What may have been done when a call failed, and is refused the second time.
constexpr uint32_t kDoneBefore = CR_STATUS_REMOTE_ERROR;

const struct Scenario {
    const char* name;
    uint32_t (*act)(MBSession*);
    uint32_t again = CR_STATUS_OK;              ///< also right, after a failure
    uint32_t (*prepare)(MBSession*) = nullptr;  ///< whatever it returns
} kScenarios[] = {
    {"create", openAnother},
    {"options", setOptions},
    {"authenticate", [](MBSession* s) { return MBAuthenticate(s, "me", "secret"); }},
    {"keepAlive", [](MBSession* s) { return MBKeepAlive(s, 0); }},
    {"time", askTime},
    {"mkdir", [](MBSession* s) { return MBDirCreate(s, "/d"); }, kDoneBefore,
     [](MBSession* s) { return MBFileDelete(s, "/d", 1); }},
    {"copy", [](MBSession* s) { return MBFileCopy(s, "/a", "/b", 1); }, kDoneBefore,
     [](MBSession* s) { return MBDirCreate(s, "/a") | MBFileDelete(s, "/b", 1); }},
    {"move", [](MBSession* s) { return MBFileMove(s, "/m", "/n", 0); }, kDoneBefore,
     [](MBSession* s) { return MBFileDelete(s, "/n", 1) | MBDirCreate(s, "/m"); }},
    {"delete", [](MBSession* s) { return MBFileDelete(s, "/e", 1); }, kDoneBefore,
     [](MBSession* s) { return MBDirCreate(s, "/e"); }},
    {"list", list},
    {"import", [](MBSession* s) { return MBPOImport(s, 1, kPO); }},
    {"addList", addOne},
    {"zeltAddList", [](MBSession* s) { return MBPOZELTAddList(s, 1, kPO); }},
    {"find", find, 0, addOne},
    {"lines", walkLines, 0, addOne},
    {"pos", walkPOs, 0, addOne},
    {"setImageV2", [](MBSession* s) { return MBSetLastImageV2(s, 1, "c", "p", 0, 9, "i", 0); }},
    {"setImage", [](MBSession* s) { return MBSetLastImage(s, 1, "c", "p", 9, "j", 0, 9, 1); }},
    {"setRetention",
     [](MBSession* s) { return MBSetImageRetention(s, 1, "c", "p", "i", 3, 2, 86400); }},
    {"retention", retention},
    {"images", images},
    {"policy", policy},
    {"tag", tag},
    {"deleteImage", [](MBSession* s) { return MBDeleteImage(s, 1, "c", "p", "k", 0); }, 3003,
     [](MBSession* s) { return MBSetLastImageV2(s, 1, "c", "p", 0, 9, "k", 0); }},
    {"expire", [](MBSession* s) { return MBPOExpire(s, 1, kPO); }},
};

size_t injections = 0;
constexpr size_t kLeast = 10'000;

/// The statuses of what may fail here: no memory, and what the transport makes of dead connections.
bool isNamed(uint32_t status) {
    return status == CR_STATUS_NO_MEMORY || status == 1012 || (status >= 2000 && status <= 2009) ||
           status == CR_STATUS_LIMIT_EXCEEDED;
}

class TransportTorture : public testing::TestWithParam<std::tuple<Scenario, bool>> {};

/// One run of a scenario; false when no call failed.
bool runOnce(const Scenario& scenario) {
    const long before = live;
    {
        MBSession* session = open();
        EXPECT_NE(session, nullptr);
        if (scenario.prepare != nullptr) scenario.prepare(session);
        seen = failed = 0;
        armed = true;
        const uint32_t status = scenario.act(session);
        armed = false;
        EXPECT_TRUE(status == CR_STATUS_OK || isNamed(status)) << status;
        EXPECT_TRUE(status == CR_STATUS_OK || failed > 0) << status;
        const uint32_t again = scenario.act(session);
        EXPECT_TRUE(again == CR_STATUS_OK || again == scenario.again) << again;
        MBShutdown(session);
    }
    EXPECT_EQ(live, before);
    return failed > 0;
}

TEST_P(TransportTorture, EveryCallFailsInTurn) {
    const auto& [scenario, tls] = GetParam();
    pool = pools[tls ? 1 : 0].get();
    nth = 0;
    runOnce(scenario);  // what is made once stays
    for (const bool all : {false, true}) {
        fromThenOn = all;
        for (nth = 1;; ++nth) {
            SCOPED_TRACE("call " + std::to_string(nth) + (all ? " and all after it" : ""));
            if (!runOnce(scenario) || HasFailure()) break;
            ++injections;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Scenarios, TransportTorture,
                         testing::Combine(testing::ValuesIn(kScenarios), testing::Bool()),
                         [](const auto& given) {
                             return std::string(std::get<0>(given.param).name) +
                                    (std::get<1>(given.param) ? "OverTls" : "");
                         });

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    for (const bool tls : {false, true})
        pools[tls ? 1 : 0] = std::make_unique<Pool>(tls);
    curl_global_init_mem(CURL_GLOBAL_DEFAULT, curlMalloc, release, curlRealloc, curlStrdup,
                         curlCalloc);
    MBSetRetryCount(0);
    int result = RUN_ALL_TESTS();
    printf("torture: %zu scenarios, %zu injections\n", 2 * std::size(kScenarios), injections);
    const bool all = testing::GTEST_FLAG(filter) == "*";
    if (all && injections < kLeast) result = 1;
    for (size_t call = 0; all && call < kCalls; ++call) {
        if (made[call] > 0) continue;
        printf("torture: no scenario reaches %s\n", kNames[call]);
        result = 1;
    }
    pools = {};
    return result;
}
