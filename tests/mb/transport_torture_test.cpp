// Sessions with the real transport under failing calls: every allocation of ours and of libcurl,
// and every call on a socket, fails in turn, once and from then on. With the argument "calls", it
// makes the calls that it reads instead, for session_model_test.py.
#include <curl/curl.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <new>
#include <string>
#include <tuple>

#include "tests/support/failing_calls.h"
#include "tests/support/folder.h"
#include "tests/support/operations.h"
#include "tests/support/sandbox_process.h"

#define DECLARATION(call, type, name, parameters, ...) type __real_##name parameters;
extern "C" {
MEMORY_CALLS(DECLARATION)
TEXT_CALLS(DECLARATION)
void* __real_malloc(size_t size);
void __real_free(void* memory);
}

namespace hooks {

#define ENUMERATOR(call, ...) call,
#define NAME(call, type, name, ...) #name,
enum Call { kNew, kOurs, kMalloc, kCalloc, kRealloc, kStrdup, SOCKET_CALLS(ENUMERATOR) kCalls };
constexpr std::array<const char*, kCalls> kNames = {
    "new",          "malloc to strndup", "curl malloc",     "curl calloc",
    "curl realloc", "curl strdup",       SOCKET_CALLS(NAME)};

std::array<size_t, kCalls> made;
FailurePlan plan;
auto& [nth, fromThenOn, seen, failed] = plan;
long live = 0;  ///< allocations that were not released
thread_local bool armed = false;

bool fails(Call call) {
    if (!armed) return false;
    ++made[call];
    if (!failsNow(&plan)) return false;
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
    __real_free(memory);
}

/// Of a new block; one that only moves stays counted.
void* countedMove(const void* old, void* memory) {
    return old == nullptr ? counted(memory) : memory;
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
    void* memory = fails(kNew) ? nullptr : __real_malloc(size);
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

void* __wrap_malloc(size_t size) {
    return fails(kOurs) ? nullptr : counted(__real_malloc(size));
}
void* __wrap_calloc(size_t count, size_t size) {
    return fails(kOurs) ? nullptr : counted(__real_calloc(count, size));
}
void* __wrap_realloc(void* old, size_t size) {
    return fails(kOurs) ? nullptr : countedMove(old, __real_realloc(old, size));
}
char* __wrap_strdup(const char* text) {
    return fails(kOurs) ? nullptr : static_cast<char*>(counted(__real_strdup(text)));
}
char* __wrap_strndup(const char* text, size_t most) {
    return fails(kOurs) ? nullptr : static_cast<char*>(counted(__real_strndup(text, most)));
}
void __wrap_free(void* memory) {
    release(memory);
}

#define INTERPOSED(call, type, name, parameters, arguments, failure, error) \
    type name parameters {                                                  \
        static const auto real = next(#name, name);                         \
        return fails(call) ? (failure) : real arguments;                    \
    }
SOCKET_CALLS(INTERPOSED)

}  // extern "C"

#pragma GCC visibility pop

namespace {

void* curlMalloc(size_t size) {
    return fails(kMalloc) ? nullptr : counted(__real_malloc(size));
}
void* curlCalloc(size_t count, size_t size) {
    return fails(kCalloc) ? nullptr : counted(__real_calloc(count, size));
}
void* curlRealloc(void* old, size_t size) {
    return fails(kRealloc) ? nullptr : countedMove(old, __real_realloc(old, size));
}
char* curlStrdup(const char* text) {
    return fails(kStrdup) ? nullptr : static_cast<char*>(counted(__real_strdup(text)));
}

/// A server with its folder, over http or TLS with a client's certificate.
class Pool {
  public:
    explicit Pool(bool tls) {
        const std::string made = folder_.path + "/pool";
        sandbox::setUp({made, tls ? "https://127.0.0.1:1" : "http://127.0.0.1:1", tls, false});
        sandbox::Settings settings = sandbox::readSetup(made);
        settings.port = 0;
        settings.sync = false;
        settings.accounts = {{"me", "secret", {"read", "write", "delete"}}};
        config = made + "/agent.cfg";
        server_ = std::make_unique<SandboxProcess>(settings);
        url = server_->url;
    }
    std::string url, config;

  private:
    Folder folder_;
    std::unique_ptr<SandboxProcess> server_;
};

std::array<std::unique_ptr<Pool>, 2> pools;  ///< http, TLS

/// Calls are made to fail within the library alone, and only while wanted.
struct Armed : operations::Objects {
    void enter() override { armed = isWanted; }
    void leave() override { armed = false; }
    bool isWanted = false;
};

/// The statuses of what may fail here: no memory, and what the transport makes of dead connections.
bool isNamed(uint32_t status) {
    return status == CR_STATUS_NO_MEMORY || status == 1012 || (status >= 2000 && status <= 2009) ||
           status == CR_STATUS_LIMIT_EXCEEDED;
}

size_t injections = 0;
constexpr size_t kLeast = 10'000;

class TransportTorture : public testing::TestWithParam<std::tuple<size_t, bool>> {};

/// One run of an operation on a session of its own; false when no call failed.
bool runOnce(const std::vector<operations::Row>& rows, const operations::Row& row) {
    const long before = live;
    {
        Armed objects;
        operations::run(objects, rows[0].call);
        MBEnableResiliency(objects.session, 0);
        for (const std::string& call : row.before)
            operations::run(objects, call);
        seen = failed = 0;
        objects.isWanted = true;
        const std::string out = operations::run(objects, row.call);
        objects.isWanted = false;
        EXPECT_TRUE(objects.status == CR_STATUS_OK || (isNamed(objects.status) && failed > 0))
            << out;
        EXPECT_TRUE(objects.status != CR_STATUS_OK || out.find(row.shows) != std::string::npos)
            << out;
        const std::string again = operations::run(objects, row.call);
        EXPECT_TRUE(objects.status == CR_STATUS_OK || objects.status == row.again) << again;
    }
    // The first run, without a failure, also makes what stays for the life of the process.
    if (nth > 0) {
        EXPECT_EQ(live, before);
    }
    return failed > 0;
}

TEST_P(TransportTorture, EveryCallFailsInTurn) {
    const auto& [index, tls] = GetParam();
    const Pool& pool = *pools[tls ? 1 : 0];
    const auto rows = operations::rows(pool.url, pool.config);
    SCOPED_TRACE(rows[index].call);
    nth = 0;
    runOnce(rows, rows[index]);  // what is made once stays
    for (const bool all : {false, true}) {
        fromThenOn = all;
        for (nth = 1;; ++nth) {
            SCOPED_TRACE("call " + std::to_string(nth) + (all ? " and all after it" : ""));
            if (!runOnce(rows, rows[index]) || HasFailure()) break;
            ++injections;
        }
    }
}

const size_t kRows = operations::rows("", "").size();

INSTANTIATE_TEST_SUITE_P(Scenarios, TransportTorture,
                         testing::Combine(testing::Range(size_t{0}, kRows), testing::Bool()),
                         [](const auto& given) {
                             const auto rows = operations::rows("", "");
                             const auto& call = rows[std::get<0>(given.param)].call;
                             return operations::Words(call)[0] +
                                    (std::get<1>(given.param) ? "OverTls" : "");
                         });

MBSession* createVa(uint32_t word, const char* url, const char* login, const char* password) {
    return MBCreateVa(word, uint32_t{KS_OPT_MBS_URL}, url, uint32_t{KS_OPT_LOGIN}, login,
                      uint32_t{KS_OPT_PASSWORD}, password, uint32_t{0});
}

/// A line in: which of two scenes makes the call, the call that fails, whether all after it do, the
/// call; "-" in its place ends the scene. A line out: the status, how many calls could fail, how
/// many did, whether session or configuration changed, what is not released, what the call shows.
void makeCalls(const Pool& pool) {
    const operations::Operation withPairs = operations::bind(createVa);
    setenv("KSPOOL_AGENT_CONFIG", pool.config.c_str(), 1);
    std::cout << pool.url << " " << pool.config << std::endl;
    std::unique_ptr<Armed> scenes[] = {std::make_unique<Armed>(), std::make_unique<Armed>()};
    size_t scene = 0;
    for (std::string line; std::cin >> scene >> plan.nth >> plan.fromThenOn;
         std::cout << std::endl) {
        std::getline(std::cin >> std::ws, line);
        if (line == "-") scenes[scene] = std::make_unique<Armed>();
        Armed& objects = *scenes[scene];
        seen = failed = 0;
        *__cr_errno_location() = 7;
        objects.isWanted = true;
        objects.status = objects.changed = 0;
        const operations::Words words(line);
        const std::string out = line == "-"                ? ""
                                : words[0] == "MBCreateVa" ? withPairs.run(objects, words)
                                                           : operations::run(objects, line);
        std::cout << objects.status << " " << seen << " " << failed << " " << objects.changed << " "
                  << live << " " << out;
    }
}

}  // namespace

int main(int argc, char** argv) {
    operations::client();  // made once
    testing::InitGoogleTest(&argc, argv);
    for (const bool tls : {false, true})
        pools[tls ? 1 : 0] = std::make_unique<Pool>(tls);
    curl_global_init_mem(CURL_GLOBAL_DEFAULT, curlMalloc, release, curlRealloc, curlStrdup,
                         curlCalloc);
    MBSetRetryCount(0);
    if (argc > 1 && strcmp(argv[1], "calls") == 0) {
        makeCalls(*pools[argc > 2 ? 1 : 0]);
        pools = {};
        return 0;
    }
    int result = RUN_ALL_TESTS();
    printf("torture: %zu scenarios, %zu injections\n", 2 * kRows, injections);
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
