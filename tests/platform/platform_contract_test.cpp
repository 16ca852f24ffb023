// The platform's contracts, against whatever platform library is linked.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>
#include <utility>
#include <vector>

#include "cr_status.h"
#include "platform/events.h"
#include "platform/ini.h"
#include "platform/net.h"
#include "platform/po.h"
#include "platform/status.h"
#include "platform/support.h"
#include "tests/support/ear.h"
#include "tests/support/folder.h"

namespace {

TEST(PlatformStatus, EveryStatusHasATextOfItsOwn) {
    std::vector<std::string> texts;
    std::vector<uint32_t> statuses = {0U,    1U,    2U,    4U,    9U,    10U,   11U,   14U,
                                      22U,   23U,   25U,   32U,   44U,   82U,   85U,   106U,
                                      108U,  1002U, 1012U, 2000U, 2001U, 2002U, 2003U, 2004U,
                                      2005U, 2006U, 2007U, 2008U, 2009U, 77777U};
#define EVENT_CODE(name, code, http, text) statuses.push_back(code);
    KSPOOL_EVENTS(EVENT_CODE)
#undef EVENT_CODE
    for (const uint32_t status : statuses) {
        texts.emplace_back(CRStatusToStringA(status));
        EXPECT_NE(texts.back(), "");
    }
    EXPECT_EQ(std::string(CRStatusToStringA(1012)), strerror(ENOMEM));
    EXPECT_EQ(std::string(CRStatusToStringA(1999)), CRStatusToStringA(77777));
    std::sort(texts.begin(), texts.end());
    EXPECT_EQ(std::adjacent_find(texts.begin(), texts.end()), texts.end());
}

TEST(PlatformStatus, SystemErrorsAreMappedAndNothingIsDisturbed) {
    Ear ear;
    for (const auto& [error, status] : {std::pair{ENOMEM, 1012U}, {EACCES, 1013U}, {0, 1005U}}) {
        for (const int trace : {0, 1}) {
            *__qlxlog_trace_location() = trace;
            *__cr_errno_location() = 7;
            errno = error;
            EXPECT_EQ(_crMapError("function", "../file", 12), status);
            EXPECT_EQ(errno, error);
            EXPECT_EQ(*__cr_errno_location(), 7U);
        }
    }
    *__qlxlog_trace_location() = 0;
    ASSERT_EQ(ear.heard.size(), 3U);
    EXPECT_NE(ear.heard[0].text.find("function (../file:12)"), std::string::npos);
}

TEST(PlatformStatus, TheSlotIsTheThreads) {
    *__cr_errno_location() = 7;
    std::thread([] {
        EXPECT_EQ(*__cr_errno_location(), 0U);
        *__cr_errno_location() = 8;
    }).join();
    EXPECT_EQ(*__cr_errno_location(), 7U);
}

TEST(PlatformStatus, TypesAndDigestTexts) {
    for (const uint32_t type : {0U, 1U, 3U, 4U, 255U, 256U + 1}) {
        EXPECT_EQ(CRFPTypeIsValid(type) != 0, type >= 1 && type <= 3) << type;
    }
    for (const int type : {0, 3, 4, 255}) {
        EXPECT_EQ(CRDOTypeIsValid(static_cast<uint8_t>(type)) != 0, type <= 3) << type;
    }
    const uint8_t digest[32] = {0x01, 0xab, 0xff};
    char buffer[65];
    EXPECT_EQ(std::string(CRFPDigestToString_r(digest, 3, buffer, 65)),
              "01abff" + std::string(58, '0'));
    EXPECT_EQ(std::string(CRFPDigestToString_r(digest, 1, buffer, 65)),
              "01abff" + std::string(26, '0'));
    EXPECT_STREQ(CRFPDigestToString_r(digest, 3, buffer, 5), "01ab");
    EXPECT_STREQ(CRFPDigestToString_r(digest, 3, buffer, 0), "");
}

TEST(PlatformStatus, TheConfigurationFileIsLocated) {
    const Folder folder;
    const std::string path = folder.path + "/kspool/agent.cfg";
    char buffer[4096];
    unsetenv("KSPOOL_AGENT_CONFIG");
    setenv("XDG_CONFIG_HOME", folder.path.c_str(), 1);
    const bool systemWide = access("/etc/kspool/agent.cfg", F_OK) == 0;
    if (!systemWide) {
        *__cr_errno_location() = 0;
        EXPECT_EQ(CRConfigLocate("Agent", buffer, sizeof buffer), nullptr);
        EXPECT_EQ(*__cr_errno_location(), 2U);
    }
    std::filesystem::create_directory(folder.path + "/kspool");
    std::ofstream(path) << "x";
    EXPECT_STREQ(CRConfigLocate("Agent", buffer, sizeof buffer), path.c_str());
    EXPECT_EQ(CRConfigLocate("Agent", buffer, path.size()), nullptr);
    EXPECT_EQ(*__cr_errno_location(), 10U);
    EXPECT_EQ(CRConfigLocate("Other", buffer, sizeof buffer), nullptr);
    setenv("KSPOOL_AGENT_CONFIG", "/nowhere/at all", 1);
    EXPECT_STREQ(CRConfigLocate("Agent", buffer, sizeof buffer), "/nowhere/at all");
    unsetenv("KSPOOL_AGENT_CONFIG");
}

TEST(PlatformSupport, MessagesReachTheSinkWithLevelAndStatus) {
    testing::internal::CaptureStderr();
    Ear ear;
    *__cr_errno_location() = 7;
    errno = ENOENT;
    __TraceA("trace %d", 1);
    InfoA(1, "info");
    NoticeA(2, "notice \x1b[2J\n|");
    WarningA(3, "warning");
    ErrorA(4, "error %s", std::string(100000, 'x').c_str());
    qlxLogA(5, 16, "note");
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(*__cr_errno_location(), 7U);
    const std::vector<Heard> expected = {{0, 0, "trace 1"},
                                         {QLX_LEVEL_INFO, 1, "info"},
                                         {QLX_LEVEL_NOTICE, 2, "notice \x1b[2J\n|"},
                                         {QLX_LEVEL_WARNING, 3, "warning"},
                                         {128, 4, "error " + std::string(100000, 'x')},
                                         {16, 5, "note"}};
    EXPECT_TRUE(ear.heard == expected);
    EXPECT_TRUE(testing::internal::GetCapturedStderr().ends_with("error 9: of the sink\n"));
}

// A server's text may neither forge a line nor rewrite the terminal.
TEST(PlatformSupport, LinesOfAMessageAreMarkedOnStderr) {
    testing::internal::CaptureStderr();
    // Characters of two and four bytes are shown; bytes that are none, and half a character, are
    // not.
    ErrorA(7, "%s", "a\x1b[2J\nb\xc2\x9b\x7f\xff\xc3\xa4\xf0\x9f\x98\x80\xf0\x9f\x98");
    ErrorA(7, "%s", std::string(100000, '\n').c_str());
    const std::string said = testing::internal::GetCapturedStderr();
    const std::string head =
        std::string(OSGetProcName(0)) + "[" + std::to_string(getpid()) + "] error 7";
    const std::string expected = head + ": a\\x1b[2J\n" + head +
                                 "| b\\xc2\\x9b\\x7f\\xff\xc3\xa4\xf0\x9f\x98\x80" +
                                 "\\xf0\\x9f\\x98\n" + head + ": \n";
    EXPECT_EQ(said.substr(0, expected.size()), expected);
    EXPECT_EQ(std::count(said.begin(), said.end(), '|'), 1 + 99999);
}

// Bytes that another decoder would take for another character are none.
TEST(PlatformSupport, OnlyWellFormedCharactersAreShown) {
    int left = 7;  // so many are shown
    for (const char* text : {"\xc2\xa0", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80",
                             "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf", "\x80", "\xc1\xbf", "\xc2\x9f",
                             "\xe0\x9f\xbf", "\xe1\xbf\xc0", "\xed\xa0\x80", "\xf0\x8f\xbf\xbf",
                             "\xf1\xbf\x7f", "\xf4\x90\x80\x80", "\xf5\x80"}) {
        testing::internal::CaptureStderr();
        ErrorA(7, "%s", text);
        EXPECT_EQ(testing::internal::GetCapturedStderr().find(text) != std::string::npos,
                  --left >= 0);
    }
}

// Locks that another thread held at the fork would never be released in the child.
TEST(PlatformSupport, AChildCanSpeakWhileOtherThreadsDo) {
    const Folder folder;
    const std::string path = folder.path + "/a.cfg";
    std::ofstream(path) << "[one\n";
    const auto speak = [&] {
        char value[8];
        NoticeA(2, "notice");
        qlxSetFatalError("f", 1, "fatal");
        InifileGetValueA("one", "a", value, 7, "d", path.c_str());
    };
    qlxSetSink([](uint32_t, uint32_t, const char*, void*) { usleep(500); }, nullptr);
    std::atomic<bool> ending = false;
    std::thread other([&] {
        while (!ending)
            speak();
    });
    for (int i = 0; i < 50; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            alarm(10);
            speak();
            _exit(0);
        }
        int status = 1;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
        if (status != 0) break;
    }
    ending = true;
    other.join();
    qlxSetSink(nullptr, nullptr);
}

TEST(PlatformSupport, TheLastFatalErrorIsReadable) {
    char function[16], message[16];
    qlxSetFatalError("first", 1, "one");
    qlxSetFatalError("MBSomething", 4711, "it was %s", "longer than that");
    EXPECT_EQ(qlxGetFatalError(function, sizeof function, message, sizeof message), 4711U);
    EXPECT_STREQ(function, "MBSomething");
    EXPECT_STREQ(message, "it was longer t");
    EXPECT_EQ(qlxGetFatalError(nullptr, 0, nullptr, 0), 4711U);
}

TEST(PlatformSupport, MagicHeaders) {
    const Folder folder;
    const std::string path = folder.path + "/file";
    const int fd = open(path.c_str(), O_RDWR | O_CREAT, 0644);
    ASSERT_EQ(write(fd, "before", 6), 6);
    ASSERT_EQ(qlxMagicWrite(64, fd, 0x1122334455667788), 0);
    uint8_t bytes[QLX_MAGIC_LENGTH] = {};
    ASSERT_EQ(pread(fd, bytes, sizeof bytes, 6), 24);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(bytes) + 8, 16),
              std::string("\x40\0\0\0\0\0\0\0\x88\x77\x66\x55\x44\x33\x22\x11", 16));
    QLXMagic magic{};
    lseek(fd, 6, SEEK_SET);
    EXPECT_EQ(qlxMagicRead(fd, &magic), 64U);
    EXPECT_EQ(magic.value, 0x1122334455667788U);
    EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 30);
    ASSERT_EQ(pwrite(fd, "beside the rule: a header with its zero broken", 46, 100), 46);
    ASSERT_EQ(pwrite(fd, bytes, 12, 100), 12);
    // Other bytes, a header cut short, nothing at all, one whose zero is none.
    for (const off_t from : {0, 7, 30, 100, 135}) {
        lseek(fd, from, SEEK_SET);
        EXPECT_EQ(qlxMagicRead(fd, &magic), 0U);
        EXPECT_EQ(magic.value, 0U);
    }
    close(fd);
    EXPECT_EQ(qlxMagicWrite(64, fd, 0), -1);
    EXPECT_EQ(qlx_access(path.c_str(), 4), 0);
    EXPECT_EQ(qlx_access(folder.path.c_str(), 4), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(qlx_unlink(path.c_str()), 0);
    EXPECT_EQ(qlx_access(path.c_str(), 4), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(PlatformSupport, TextsAndProcessFacts) {
    char buffer[4] = "...";
    EXPECT_STREQ(qlxstrcpy(buffer, "abcdef", sizeof buffer), "abc");
    EXPECT_STREQ(qlxstrcpy(buffer, "x", 0), "abc");
    const char text[] = "line\rnext\n";
    EXPECT_EQ(qlxstrpbrk(text, "\r\n"), text + 4);
    EXPECT_EQ(qlxstrpbrk(text, "#"), nullptr);
    EXPECT_STREQ(OSGetProcName(0), program_invocation_short_name);
    char* const name = std::exchange(program_invocation_short_name, buffer + 3);
    EXPECT_STREQ(OSGetProcName(0), "unknown");
    program_invocation_short_name = name;
    EXPECT_GT(OSGetRSS(), 1U << 20);
}

TEST(PlatformNet, FindsHostAndPort) {
    for (const auto& [url, part] : {std::pair{"host:9000/x", "host:9000"},
                                    {"https://host", "host"},
                                    {"a:b@c@host:1?q", "host:1"},
                                    {"host#f@g", "host"},
                                    {"[::1]:80/", "[::1]:80"},
                                    {"", ""},
                                    {"h/x://y", "h"}}) {
        char buffer[10];
        NetExtractHostAndPort(url, buffer, sizeof buffer, 0);
        EXPECT_STREQ(buffer, part);
    }
    char small[4];
    EXPECT_EQ(NetExtractHostAndPort("host:9000", small, sizeof small, 0), 3);
    EXPECT_STREQ(small, "hos");
}

TEST(PlatformNet, DecodesInPlace) {
    for (const auto& [coded, plain] : {std::pair{"abc%20d", "abc d"},
                                       {"a+b", "a+b"},
                                       {"%4a%4A", "JJ"},
                                       {"%0A%09%a0%ff", "\n\t\xa0\xff"},
                                       {"%", "%"},
                                       {"%2", "%2"},
                                       {"%zz%2g%%41", "%zz%2g%A"}}) {
        std::string text = coded;
        EXPECT_EQ(URLDecode(text.data()), text.data());
        EXPECT_STREQ(text.c_str(), plain);
    }
}

// Each character at each place around the blocks that a fast search may take at once.
TEST(PlatformSupport, FindsTheFirstOfASet) {
    alignas(64) char text[130];
    for (size_t start = 0; start < 40; ++start) {
        for (size_t length = 0; length < 80; ++length) {
            memset(text, 'x', sizeof text);
            text[start > 0 ? start - 1 : 129] = '\n';  // before the text
            text[start + length] = '\0';
            text[start + length + 1] = '\n';  // behind it
            EXPECT_EQ(qlxstrpbrk(text + start, "\r\n"), nullptr);
            if (length == 0) continue;
            text[start + length - 1] = length % 2 == 0 ? '\r' : '\n';
            EXPECT_EQ(qlxstrpbrk(text + start, "\r\n"), text + start + length - 1);
            EXPECT_EQ(qlxstrpbrk(text + start, "a\r\n"), text + start + length - 1);
        }
    }
}

// A search never reads the page behind the one that a text ends in.
TEST(PlatformSupport, SearchesUpToTheLastByteOfAPage) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    auto* pages = static_cast<char*>(
        mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(pages, MAP_FAILED);
    ASSERT_EQ(mprotect(pages + page, page, PROT_NONE), 0);
    memset(pages, 'x', page);
    pages[page - 1] = '\0';
    for (size_t length = 0; length < 200; ++length) {
        char* text = pages + page - 1 - length;
        text[-1] = '\n';  // before the text
        EXPECT_EQ(qlxstrpbrk(text, "\r\n"), nullptr);
        text[-1] = 'x';
    }
    munmap(pages, 2 * page);
}

TEST(PlatformPO, IsItsLine) {
    PO po{};
    size_t length = 9;
    EXPECT_EQ(POGetField(&po, 0, &length), nullptr);
    POSetStype(&po, 1);
    char line[] = "a||long";
    ASSERT_EQ(POSetFromNonConstString(&po, line), 0);
    memset(line, 'x', sizeof line - 1);
    for (const auto& [index, text] : {std::pair{0U, "a"}, {1U, ""}, {2U, "long"}}) {
        const char* field = POGetField(&po, index, &length);
        ASSERT_NE(field, nullptr);
        EXPECT_EQ(std::string(field, length), text);
    }
    EXPECT_EQ(POGetField(&po, 3, &length), nullptr);
    char none[] = "no PO";
    *__cr_errno_location() = 0;
    EXPECT_NE(POSetFromNonConstString(&po, none), 0);
    EXPECT_EQ(*__cr_errno_location(), CR_STATUS_BAD_HANDLE);
    EXPECT_EQ(po.text, nullptr);
    POReset(&po);
    EXPECT_EQ(po.stype, 1U);
}

}  // namespace
