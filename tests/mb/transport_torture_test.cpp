// Sessions with the real transport under failing calls: every allocation of ours and of libcurl,
// and every call on a socket, fails in turn, once and from then on.
#include <curl/curl.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <tuple>

#include "tests/mb/armed.h"

#define DECLARATION(call, type, name, parameters, ...) type __real_##name parameters;
extern "C" {
MEMORY_CALLS(DECLARATION)
TEXT_CALLS(DECLARATION)
void* __real_malloc(size_t size);
void __real_free(void* memory);
}

namespace hooks {
namespace {

#define ENUMERATOR(call, ...) call,
#define NAME(call, type, name, ...) #name,
enum Call { kNew, kOurs, kMalloc, kCalloc, kRealloc, kStrdup, SOCKET_CALLS(ENUMERATOR) kCalls };
constexpr std::array<const char*, kCalls> kNames = {
    "new",          "malloc to strndup", "curl malloc",     "curl calloc",
    "curl realloc", "curl strdup",       SOCKET_CALLS(NAME)};

std::array<size_t, kCalls> made;
auto& [nth, fromThenOn, seen, failed] = plan;

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

}  // namespace

FailurePlan plan;
long live = 0;
thread_local bool armed = false;

}  // namespace hooks

using namespace hooks;
std::array<std::unique_ptr<Pool>, 2> pools;

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
        return fails(call) ? failure : real arguments;                      \
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

}  // namespace

int main(int argc, char** argv) {
    operations::client();  // made once
    testing::InitGoogleTest(&argc, argv);
    for (const bool tls : {false, true})
        pools[tls ? 1 : 0] = std::make_unique<Pool>(tls);
    curl_global_init_mem(CURL_GLOBAL_DEFAULT, curlMalloc, release, curlRealloc, curlStrdup,
                         curlCalloc);
    MBSetRetryCount(0);
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
