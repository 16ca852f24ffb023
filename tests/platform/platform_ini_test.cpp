// Configuration files: the contract of platform/ini.h, and what KSConfigInitWithAgentCfg() makes of
// a file.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "ks.h"
#include "platform/ini.h"
#include "platform/support.h"
#include "tests/support/ear.h"
#include "tests/support/folder.h"

namespace {

/// A configuration file with a byte in it that no line may have, and one that is too long.
const std::string kOddFile =
    "\xef\xbb\xbf\n# comment\r\n; another\n[ One ]\r\nAB = first \r\nab = second\nempty =\n"
    "quoted = \" a b \"\nhalf = \"x\nhash = a # b\nnumber = 12abc\nwords = abc\nbig = 99999999999\n"
    "small = -99999999999\nhuge = 99999999999999999999\n no sense\n[broken\nnul = a" +
    std::string(1, '\0') + "b\nlong = " + std::string(70000, 'x') +
    "\n[TWO]\nab=two\nZONE-ID=i\n[one]\nlate=l\nlast=z";

TEST(PlatformIni, ReadsOddFiles) {
    const Folder folder;
    const std::string path = folder.path + "/odd.cfg";
    std::ofstream(path) << kOddFile;
    const struct {
        const char *section, *entry, *value;
        int found;
    } table[] = {
        {"one", "ab", "first", 5},     {"two", "AB", "two", 3},    {"one", "empty", "d", 0},
        {"one", "quoted", " a b ", 5}, {"one", "half", "\"x", 2},  {"one", "hash", "a # b", 5},
        {"one", "nul", "d", 0},        {"one", "long", "d", 0},    {"one", "late", "l", 1},
        {"one", "last", "z", 1},       {"two", "zone-id", "i", 1}, {"three", "ab", "d", 0}};
    for (const auto& row : table) {
        char value[8] = "";
        EXPECT_EQ(InifileGetValueA(row.section, row.entry, value, 7, "d", path.c_str()), row.found);
        EXPECT_STREQ(value, row.value) << row.entry;
    }
    const struct {
        const char* entry;
        int64_t wide;
        int32_t narrow;
        int found;
    } numbers[] = {{"number", 12, 12, 1},
                   {"words", -5, -5, 0},
                   {"none", -5, -5, 0},
                   {"big", 99999999999, INT32_MAX, 1},
                   {"small", -99999999999, INT32_MIN, 1},
                   {"huge", INT64_MAX, INT32_MAX, 1}};
    for (const auto& row : numbers) {
        int64_t wide = 0;
        int32_t narrow = 0;
        EXPECT_EQ(InifileGetLongLongA("one", row.entry, &wide, -5, path.c_str()), row.found);
        EXPECT_EQ(InifileGetIntegerA("one", row.entry, &narrow, -5, path.c_str()), row.found);
        EXPECT_EQ(wide, row.wide) << row.entry;
        EXPECT_EQ(narrow, row.narrow) << row.entry;
    }
}

// The entries below a damaged header would otherwise go to the section above.
TEST(PlatformIni, EndsASectionAtADamagedHeader) {
    const Folder folder;
    const std::string path = folder.path + "/damaged.cfg";
    const struct {
        std::string header;
        const char *above, *named;
        size_t reports;
    } table[] = {{"[spa]", "d", "u", 0},
                 {"[spa] ; the server", "d", "u", 0},
                 {"[spa", "d", "d", 1},
                 {" \t[spa", "d", "d", 1},
                 {"[spa] url", "d", "d", 1},
                 {"[spa" + std::string(70000, ' ') + "]", "d", "d", 1},
                 {std::string("[sp\0a]", 7), "d", "d", 1},
                 {"x = y\r[spa] ; s", "d", "d", 1},
                 {"no sense", "u", "d", 1}};
    for (const auto& row : table) {
        std::ofstream(path) << "[metabase]\n" << row.header << "\nurl = u\n";
        const Ear ear;
        char value[8];
        InifileGetValueA("metabase", "url", value, 7, "d", path.c_str());
        EXPECT_STREQ(value, row.above) << row.header;
        InifileGetValueA("spa", "url", value, 7, "d", path.c_str());
        EXPECT_STREQ(value, row.named) << row.header;
        EXPECT_EQ(ear.heard.size(), row.reports) << row.header;
    }
}

TEST(PlatformIni, TellsEachFaultOnceAndEachCutValue) {
    const Folder folder;
    const std::string path = folder.path + "/odd.cfg";
    std::ofstream(path) << kOddFile;
    Ear ear;
    char value[3];
    EXPECT_EQ(InifileGetValueA("one", "ab", value, 2, nullptr, path.c_str()), 2);
    EXPECT_STREQ(value, "fi");
    EXPECT_EQ(InifileGetPathA("one", "none", value, 2, nullptr, path.c_str()), 0);
    EXPECT_STREQ(value, "");
    const std::string full = folder.path + "/full.cfg", larger = folder.path + "/larger.cfg";
    std::ofstream{full}, std::ofstream{larger};
    std::filesystem::resize_file(full, 16 << 20);
    std::filesystem::resize_file(larger, (16 << 20) + 1);
    for (const char* file : {"/nowhere", "/nowhere", "/dev/null", full.c_str(), larger.c_str()})
        EXPECT_EQ(InifileGetPathA("one", "none", value, 2, nullptr, file), 0);
    const std::string line = path + ": line ";
    const std::vector<Heard> expected = {
        {QLX_LEVEL_NOTICE, 82, line + "16 is neither a section nor an entry"},
        {QLX_LEVEL_NOTICE, 82, line + "17 is a section without an end"},
        {QLX_LEVEL_NOTICE, 82, line + "18 has a NUL byte in it"},
        {QLX_LEVEL_NOTICE, 82, line + "19 is too long"},
        {QLX_LEVEL_NOTICE, 10, path + ": [one] ab: value cut to 2 characters"},
        {QLX_LEVEL_NOTICE, 25, "/nowhere: No such file or directory"},
        {QLX_LEVEL_NOTICE, 25, "/dev/null: is no regular file"},
        {QLX_LEVEL_NOTICE, 82, full + ": line 1 is too long"},
        {QLX_LEVEL_NOTICE, 25, larger + ": is larger than 16 MiB"}};
    EXPECT_EQ(ear.heard, expected);
}

// The example of the document is a file that the loader takes without a word.
TEST(AgentConfig, ReadsTheDocumentsExample) {
    std::ifstream document(AGENT_CONFIG_DOCUMENT);
    const std::string text((std::istreambuf_iterator<char>(document)), {});
    const size_t start = text.find("```ini\n") + 7;
    const Folder folder;
    const std::string path = folder.path + "/agent.cfg";
    std::ofstream(path) << text.substr(start, text.find("```", start) - start);
    Ear ear;
    KSConfig config;
    KSConfigInitWithAgentCfg(&config, path.c_str());
    EXPECT_EQ(ear.heard, std::vector<Heard>());
    EXPECT_EQ(config.flags, 0x7e7U);
    const struct {
        const char *read, *written;
    } texts[] = {{config.vendorName, "Norvale"},
                 {config.programLabel, "Nightly backup"},
                 {config.spaUrl, "kbox://pool.example:9000"},
                 {config.mbsUrl, "https://pool.example:9443"},
                 {config.currentRouteTable, "/var/lib/kspool/routes/4711.current"},
                 {config.sslKeyLocation, "/etc/kspool/keys"}};
    for (const auto& row : texts)
        EXPECT_STREQ(row.read, row.written);
    EXPECT_EQ(config.storagePoolId, 4711U);
    EXPECT_EQ(config.agentId, 12U);
    EXPECT_EQ(config.reconnectTimeout, 60);
    EXPECT_EQ(config.fingerprintType, 3);
    // Each of the ten directives has its row in the document's table.
    for (const char* row : {"vendor", "label", "url", "pool-id", "agent-id", "reconnect-timeout",
                            "type", "route-tables", "ssl-key"})
        EXPECT_NE(text.find(std::string("| `") + row + "` |"), std::string::npos) << row;
}

// The report of the missing URL replaces the file, of which the label was read already.
TEST(AgentConfig, IsThatOfOneFile) {
    const Folder folder;
    const std::string path = folder.path + "/agent.cfg";
    std::ofstream(path) << "[product]\nlabel = old\n";
    std::ofstream(path + ".new") << "[product]\nlabel = new\n[pool]\npool-id = 2\n";
    qlxSetSink(
        [](uint32_t, uint32_t, const char*, void* place) {
            const auto& replaced = *static_cast<std::string*>(place);
            rename((replaced + ".new").c_str(), replaced.c_str());
        },
        const_cast<std::string*>(&path));
    KSConfig config;
    KSConfigInitWithAgentCfg(&config, path.c_str());
    qlxSetSink(nullptr, nullptr);
    EXPECT_STREQ(config.programLabel, "new");
    EXPECT_EQ(config.storagePoolId, 2U);
}

}  // namespace
