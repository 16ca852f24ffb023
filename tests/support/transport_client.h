// A transport with a server, and what tests of it have alike.
#ifndef TESTS_TRANSPORT_CLIENT_H
#define TESTS_TRANSPORT_CLIENT_H

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/ws.h"
#include "tests/support/raw_server.h"

using Clock = std::chrono::steady_clock;
inline constexpr uint64_t kLimit = 8 << 20;
inline char* const kEnd = nullptr;

inline double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

/// A transport with a server, and what its last request brought.
class Transport {
  public:
    explicit Transport(const std::string& url, int64_t timeout = 2) : ws_(WSInit(0, 0, 0, 0, 0)) {
        WSSetAnswerLimit(kLimit);
        set(WS_OPT_SERVER_URL, url.c_str());
        EXPECT_EQ(WSSetOptVa(ws_, uint32_t{WS_OPT_RESPONSE_TIMEOUT}, timeout, uint32_t{0}), 0U);
    }
    ~Transport() {
        free(result.data);
        WSShutdown(ws_);
    }
    Transport(const Transport&) = delete;
    Transport& operator=(const Transport&) = delete;

    void set(uint32_t code, const char* text) {
        WSOption option{code, {}};
        option.value.text = text;
        EXPECT_EQ(WSSetOpt(ws_, &option, 1), 0U);
    }
    void reconnect(int64_t seconds) {
        EXPECT_EQ(WSSetOptVa(ws_, uint32_t{WS_OPT_RECONNECT_TIMEOUT}, seconds, uint32_t{0}), 0U);
    }
    uint32_t get() {
        free(result.data);
        return WSRequestExt(ws_, WS_SERVICE_METABASE, &result, "action", "gettime", kEnd);
    }
    std::string data() const { return result.data == nullptr ? "(none)" : result.data; }
    operator WSTransport*() { return ws_; }

    WSResult result{};

  private:
    WSTransport* ws_;
};

inline const std::string kHead = "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n";
inline constexpr auto kOpen = Reply::KeepsOpen;
inline constexpr auto kClose = Reply::Closes;
inline constexpr auto kReset = Reply::Resets;
inline constexpr uint32_t kBad = WS_STATUS_BAD_ANSWER, kCut = WS_STATUS_CUT,
                          kLarge = WS_STATUS_TOO_LARGE;

#endif
