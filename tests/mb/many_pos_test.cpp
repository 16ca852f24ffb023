// As many POs as a pool has in practice: added, found, walked by both cursors and expired. The
// server is another process, so that what is measured here is the client's memory.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>

#include "cr_status.h"
#include "mb.h"
#include "mb/mb_int.h"
#include "tests/support/sandbox_process.h"

namespace {

constexpr uint32_t kMany = MANY_POS;
constexpr uint32_t kFew = 10'000;
#ifdef __SANITIZE_ADDRESS__  // freed memory stays resident for a while
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

uint64_t resident() {
    std::ifstream stream("/proc/self/statm");
    uint64_t all = 0, pages = 0;
    stream >> all >> pages;
    return pages * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

/// Says how long each step took.
class Steps {
  public:
    void done(const char* what) {
        const auto now = std::chrono::steady_clock::now();
        std::cout << what << " " << std::chrono::duration<double>(now - last_).count() << " s\n";
        seconds = std::chrono::duration<double>(now - last_).count();
        last_ = now;
    }
    double seconds = 0;

  private:
    std::chrono::steady_clock::time_point last_ = std::chrono::steady_clock::now();
};

TEST(ManyPOs, AreAddedFoundWalkedAndExpired) {
    sandbox::Settings settings;
    settings.accounts = {{"me", "secret", {"read", "write", "delete"}}};
    const SandboxProcess server(settings);
    MBSession* session = MBInitWithAgentCfg(server.url.c_str(), 0, "me", "secret", "/dev/null");
    ASSERT_NE(session, nullptr);
    Steps steps;
    std::string list;
    uint64_t bytes = 0;
    for (uint32_t i = 0; i < kMany; ++i) {
        list += po(i);
        if (list.size() < 500'000 && i + 1 < kMany) continue;
        ASSERT_EQ(MBPOAddList(session, 1, list.c_str()), 0U);
        bytes += list.size();
        list.clear();
    }
    list.shrink_to_fit();
    steps.done("added");

    MBPOFilter filter{};
    filter.size = sizeof filter;
    ASSERT_EQ(MBPOFilterInit(&filter), 0U);
    filter.criterion6 = "few";
    char* text = nullptr;
    size_t length = 0;
    uint32_t count = 0;
    ASSERT_EQ(MBPOFind(session, 1, &filter, &text, &length, &count), 0U);
    free(text);
    EXPECT_EQ(count, kFew);
    steps.done("found few");
    EXPECT_LT(steps.seconds, kMany > kFew * 10 ? 1 : 60);

    filter.criterion6 = "*";
    const uint64_t before = resident();
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
    EXPECT_LT(resident() - before, bytes + kBesides);
    MBPOFindClose(cursor);
    steps.done("walked as text");

    PO one{};
    cursor = MBPOFindFirst(session, 1, &filter, &one, &count);
    ASSERT_NE(cursor, nullptr);
    lines = 1;
    while (MBPOFindNext(cursor, &one) == 0)
        ++lines;
    EXPECT_EQ(lines, kMany);
    EXPECT_LT(resident() - before, bytes + kBesides);
    MBPOFindClose(cursor);
    POReset(&one);
    steps.done("walked as POs");

    for (uint32_t i = 0; i < kMany; ++i) {
        list += po(i);
        if (list.size() < 500'000 && i + 1 < kMany) continue;
        ASSERT_EQ(MBPOExpire(session, 1, list.c_str()), 0U);
        list.clear();
    }
    EXPECT_EQ(MBPOStringFindFirst(session, 1, &filter, &line, &count), nullptr);
    EXPECT_EQ(count, 0U);
    steps.done("expired");
    MBShutdown(session);
}

}  // namespace
