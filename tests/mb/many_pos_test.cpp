// As many POs as a pool has in practice: added, found, walked by both cursors and expired. The
// server is another process, so that what is measured here is the client's memory.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cr_status.h"
#include "mb.h"
#include "mb/mb_int.h"
#include "platform/support.h"
#include "tests/support/sandbox_process.h"

namespace {

const char* const kWanted = getenv("KSPOOL_TEST_POS");
const uint32_t kMany = kWanted != nullptr ? static_cast<uint32_t>(atoi(kWanted)) : MANY_POS;
constexpr uint32_t kFew = 10'000;
#ifdef KSPOOL_SANITIZED  // freed memory stays resident for a while
constexpr uint64_t kBesides = 256 << 20;
#else
constexpr uint64_t kBesides = 16 << 20;
#endif

/// One of two clients, the first of which has few POs; the name makes the line 105 bytes long.
std::string po(uint32_t i) {
    char name[64];
    snprintf(name, sizeof name, "a-file-with-a-name-of-some-length-%014u",
             static_cast<uint32_t>(uint64_t{i} * 7919 % kMany));
    return "1|1||0|0|" + std::string(i < kFew ? "few" : "all") + "|p|i|/f|" + name +
           "|d|f||||1|0|0|0|0|0|0|0|0|0|\n";
}

/// Calls with all POs, in lists of half a megabyte, and says how many bytes they were.
uint64_t withAll(MBSession* session, uint32_t (*call)(MBSession*, uint32_t, const char*)) {
    std::string list;
    uint64_t bytes = 0;
    for (uint32_t i = 0; i < kMany; ++i) {
        list += po(i);
        if (list.size() < 500'000 && i + 1 < kMany) continue;
        EXPECT_EQ(call(session, 1, list.c_str()), 0U);
        bytes += list.size();
        list.clear();
    }
    return bytes;
}

TEST(ManyPOs, AreAddedFoundWalkedAndExpired) {
    sandbox::Settings settings;
    settings.accounts = {{"me", "secret", {"read", "write", "delete"}}};
    const SandboxProcess server(settings);
    MBSession* session = MBInitWithAgentCfg(server.url.c_str(), 0, "me", "secret", "/dev/null");
    ASSERT_NE(session, nullptr);
    const uint64_t bytes = withAll(session, MBPOAddList);

    MBPOFilter filter{};
    filter.size = sizeof filter;
    ASSERT_EQ(MBPOFilterInit(&filter), 0U);
    filter.criterion6 = "few";
    char* text = nullptr;
    uint32_t count = 0;
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(MBPOFind(session, 1, &filter, &text, nullptr, &count), 0U);
    EXPECT_LT(std::chrono::steady_clock::now() - start,
              std::chrono::seconds(kMany > kFew * 10 ? 1 : 60));
    free(text);
    EXPECT_EQ(count, kFew);

    filter.criterion6 = "*";
    const uint64_t before = OSGetRSS();
    char* line = nullptr;
    MBPOCursor* cursor = MBPOStringFindFirst(session, 1, &filter, &line, &count);
    ASSERT_NE(cursor, nullptr);
    ASSERT_EQ(count, kMany);
    uint64_t walked = 0;
    uint32_t lines = 0;
    char last[64] = "";
    do {
        const char* name = strstr(line, "a-file");
        EXPECT_LT(strncmp(last, name, 48), 0);
        memcpy(last, name, 48);
        walked += strlen(line) + 1;
        ++lines;
    } while (MBPOStringFindNext(cursor, &line) == 0);
    EXPECT_EQ(lines, kMany);
    EXPECT_EQ(walked, bytes);
    EXPECT_LT(OSGetRSS() - before, bytes + kBesides);
    MBPOFindClose(cursor);

    PO one{};
    cursor = MBPOFindFirst(session, 1, &filter, &one, &count);
    ASSERT_NE(cursor, nullptr);
    lines = 1;
    while (MBPOFindNext(cursor, &one) == 0)
        ++lines;
    EXPECT_EQ(lines, kMany);
    EXPECT_LT(OSGetRSS() - before, bytes + kBesides);
    MBPOFindClose(cursor);
    POReset(&one);

    EXPECT_EQ(withAll(session, MBPOExpire), bytes);
    EXPECT_EQ(MBPOStringFindFirst(session, 1, &filter, &line, &count), nullptr);
    EXPECT_EQ(count, 0U);
    MBShutdown(session);
    printf("many: %u POs\n", kMany);
}

}  // namespace
