// The captured exchanges: the client sends them and understands their answers, the server answers
// them, each without the other, and the document shows them.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <functional>

#include "mb.h"
#include "mb/mb_int.h"
#include "sandbox/sandbox.h"
#include "tests/support/raw_server.h"

namespace {

struct Exchange {
    std::string name, request, answer;
};

std::string contentsOf(const char* path) {
    std::ifstream file(path);
    EXPECT_TRUE(file) << path;
    return {std::istreambuf_iterator<char>(file), {}};
}

/// As it stands on the wire: CR LF in the head, and not the LF that follows the body.
std::string wire(const std::string& text) {
    const size_t head = text.find("\n\n") + 2;
    std::string out;
    for (const char c : text.substr(0, head))
        out += c == '\n' ? "\r\n" : std::string(1, c);
    return out + text.substr(head, text.size() - 1 - head);
}

std::vector<Exchange> exchanges() {
    const std::string all = contentsOf(WIRE_CAPTURES);
    std::vector<Exchange> out;
    for (size_t at = all.find("\n== "); at != std::string::npos;) {
        const size_t next = all.find("\n\n== ", at);
        const std::string block =
            all.substr(at + 4, (next == std::string::npos ? all.size() : next + 1) - at - 4);
        const size_t name = block.find('\n');
        const size_t answer = block.find("\n-- answer\n");
        out.push_back({block.substr(0, name), wire(block.substr(name + 1, answer - name)),
                       wire(block.substr(answer + 11))});
        at = next == std::string::npos ? next : next + 1;
    }
    return out;
}

/// Without what differs from run to run.
std::string comparable(std::string text) {
    for (const std::string name : {"Host", "Request-Id", "Date"}) {
        const size_t at = text.find("\r\n" + name + ": ");
        if (at != std::string::npos) text.erase(at, text.find("\r\n", at + 2) - at);
    }
    return text;
}

constexpr char kSelections[] = R"([{"number":1},{"number":2,"tag":"a tag|2"}])";

class Wire : public testing::Test {
  protected:
    /// The calls that made the captures, in their order, with what they returned.
    struct Call {
        std::function<uint32_t(MBSession*)> call;
        uint32_t result;
        const char* login = "agent";
    };
    static constexpr char kPO[] =
        "1|1||0|0|web1|daily|monday|/srv|a b.txt|3f|f||||5|7|0|0|0|1|1|0|420|0|\n";
    static constexpr char kOtherPO[] =
        "1|1||0|0|web1|daily|monday|/srv|100%|40|f||||6|7|0|0|0|1|1|0|420|0|\n";

    uint32_t find(MBSession* session, const char* name) {
        MBPOFilter filter{};
        filter.size = sizeof filter;
        MBPOFilterInit(&filter);
        filter.criterion10 = name;
        return MBPOFind(session, 1, &filter, &found_, nullptr, nullptr);
    }
    std::vector<Call> calls() {
        return {
            {[](MBSession* s) { return MBDirCreate(s, "/backup"); }, 0},
            {[](MBSession* s) { return MBDirCreate(s, "/backup/monday 100%"); }, 0},
            {[](MBSession* s) { return MBFileCopy(s, "/backup", "/copy", 1); }, 0},
            {[](MBSession* s) { return MBFileMove(s, "/copy", "/moved", 0); }, 0},
            {[this](MBSession* s) { return MBDirList(s, "/", &listing_, nullptr, 1); }, 0},
            {[](MBSession* s) { return MBFileDelete(s, "/moved", 1); }, 0},
            {[this](MBSession* s) { return MBGetTime(s, &time_); }, 0},
            {[](MBSession* s) { return MBKeepAlive(s, 0); }, 0},
            {[](MBSession* s) { return WSArchMode(s->transport); }, 1},
            {[](MBSession* s) { return MBDirCreate(s, "/backup"); }, CR_STATUS_REMOTE_ERROR},
            {[](MBSession* s) { return MBDirCreate(s, "/forbidden"); }, CR_STATUS_PERMISSION_DENIED,
             "reader"},
            {[](MBSession* s) { return MBPOImport(s, 1, kPO); }, 0},
            {[](MBSession* s) { return MBPOAddList(s, 1, kOtherPO); }, 0},
            {[](MBSession* s) { return MBPOZELTAddList(s, 1, kPO); }, 0},
            {[this](MBSession* s) { return find(s, "*"); }, 0},
            {[](MBSession* s) { return MBPOExpire(s, 1, kOtherPO); }, 0},
            {[](MBSession* s) {
                 return MBSetLastImageV2(s, 1, "web1", "daily", 0, 1699999000, "monday", 0);
             },
             0},
            {[](MBSession* s) {
                 return MBSetLastImage(s, 1, "web1", "daily", 1699999500, "tuesday", 0, 9, 1);
             },
             0},
            {[this](MBSession* s) {
                 return MBGetLastImages(s, 1, "web1", "daily", -1, 1699990000, &images_);
             },
             0},
            {[](MBSession* s) {
                 return MBSetImageRetention(s, 1, "web1", "daily", "monday", 3, 2, 86400);
             },
             0},
            {[this](MBSession* s) {
                 return MBGetImageRetention(s, 1, "web1", "daily", "monday", &retention_);
             },
             0},
            {[this](MBSession* s) { return MBFindImagePolicy(s, 1, "web1", "monday", &policy_); },
             0},
            {[](MBSession* s) { return MBDeleteImage(s, 1, "web1", "daily", "monday", 0); }, 0},
            {[this](MBSession* s) { return MBGetHVXTag(s, 2, &digit_, &tag_); }, 0},
            {[](MBSession* s) { return MBPOAddList(s, 1, "no PO\n"); }, CR_STATUS_REMOTE_ERROR},
            {[this](MBSession* s) { return MBGetLastImages(s, 3, "web1", "daily", -1, 0, &none_); },
             3001},
            {[](MBSession* s) { return MBDeleteImage(s, 1, "web1", "daily", "monday", 0); }, 3003},
            {[](MBSession* s) { return MBPOExpire(s, 1, kPO); }, CR_STATUS_PERMISSION_DENIED,
             "reader"},
        };
    }
    ~Wire() override {
        for (char* text : {listing_, found_, images_, policy_, tag_, none_})
            free(text);
    }

    char *listing_ = nullptr, *found_ = nullptr, *images_ = nullptr, *policy_ = nullptr,
         *tag_ = nullptr, *none_ = nullptr;
    MBImageRetentionInfo retention_{};
    uint32_t time_ = 0;
    int32_t digit_ = 0;
};

TEST_F(Wire, IsWhatTheClientSpeaks) {
    const auto captured = exchanges();
    const auto made = calls();
    ASSERT_EQ(captured.size(), made.size());
    const std::string config = testing::TempDir() + "wire.cfg";
    std::ofstream(config) << "\n";
    for (size_t i = 0; i < made.size(); ++i) {
        SCOPED_TRACE(captured[i].name);
        RawServer server({captured[i].answer, Reply::KeepsOpen, 0, 0});
        MBSession* session =
            MBInitWithAgentCfg(server.url().c_str(), 0, made[i].login, "secret", config.c_str());
        ASSERT_NE(session, nullptr);
        EXPECT_EQ(made[i].call(session), made[i].result);
        MBShutdown(session);
        ASSERT_EQ(server.requests().size(), 1U);
        EXPECT_EQ(comparable(server.requests()[0]), comparable(captured[i].request));
    }
    EXPECT_EQ(time_, 1700000000U);
    EXPECT_NE(std::string(listing_).find("d 0 1700000000 moved/monday 100%\n"), std::string::npos);
    EXPECT_NE(std::string(found_).find(std::string("\n2\n") + kOtherPO + kPO), std::string::npos);
    EXPECT_STREQ(
        images_,
        "1699999500|web1|daily|0|tuesday|tuesday|9|1\n1699999000|web1|daily|0|monday||0|0\n");
    EXPECT_STREQ(policy_, "daily");
    EXPECT_EQ(retention_.retentionValue4, 1700000000);
    EXPECT_EQ(digit_, 1);
    EXPECT_STREQ(tag_, "a tag|2");
}

TEST_F(Wire, IsWhatTheServerSpeaks) {
    sandbox::Settings settings;
    settings.accounts = {{"agent", "secret", {"read", "write", "delete"}},
                         {"reader", "secret", {"read"}}};
    sandbox::Server server(settings);
    server.admin("POST", "clock", "1700000000");
    server.admin("POST", "dataselections", kSelections);
    // Ports differ, and so may their number of digits.
    const auto plain = [](const std::string& text) {
        std::string out = comparable(text);
        const std::string address = "\"127.0.0.1:";
        const size_t at = out.find(address);
        if (at != std::string::npos) {
            const size_t port = at + address.size();
            out.erase(port, out.find('"', port) - port);
            out.erase(out.find("\r\nContent-Length: "), 21);
        }
        return out;
    };
    for (const Exchange& exchange : exchanges())
        EXPECT_EQ(plain(rawExchange(server.port(), exchange.request)), plain(exchange.answer))
            << exchange.name;
}

TEST_F(Wire, IsWhatTheDocumentShows) {
    const std::string document = contentsOf(WIRE_DOCUMENT);
    for (const Exchange& exchange : exchanges()) {
        for (std::string text : {exchange.request, exchange.answer}) {
            std::erase(text, '\r');
            text.erase(text.find_last_not_of('\n') + 1);
            EXPECT_NE(document.find("```http\n" + text + "\n```"), std::string::npos)
                << exchange.name << "\n"
                << text;
        }
    }
}

}  // namespace
