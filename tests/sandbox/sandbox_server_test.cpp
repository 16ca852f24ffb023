// The development server in this process, asked over sockets.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>

#include "sandbox/sandbox.h"
#include "tests/sandbox/sandbox_client.h"

namespace {

using nlohmann::json;

class Sandbox : public testing::Test {
  protected:
    void SetUp() override { restart(); }

    void restart() {
        server.reset();
        server = std::make_unique<sandbox::Server>(settings);
        server->admin("POST", "clock", "1000");
    }
    Reply ask(const Call& call) { return Client(server->port()).ask(request(call)); }
    std::string brief(const std::string& form) { return ask({form}).brief(); }
    json admin(const char* method, const char* path, const std::string& body = {}) {
        return json::parse(server->admin(method, path, body));
    }

    sandbox::Settings settings = [] {
        sandbox::Settings made;
        made.accounts = {{"all", "secret", {"read", "write", "delete"}},
                         {"reader", "see:all", {"read"}}};
        made.bodyLimit = 100'000;
        return made;
    }();
    std::unique_ptr<sandbox::Server> server;
};

struct Step {
    const char* form;
    const char* expected;
};

TEST_F(Sandbox, NameSpace) {
    admin("POST", "tree", R"([{"path": "/f/x", "size": 7, "mtime": 5}])");
    // 'a.b' and 'a0' have the same beginning as what is below 'a', and lie around it.
    const Step steps[] = {
        {"mkdir path=/a", "200 "},
        {"mkdir path=//a//b/", "200 "},
        {"mkdir path=/a.b", "200 "},
        {"mkdir path=/a0", "200 "},
        {"mkdir path=/a/b/c", "200 "},
        {"mkdir path=/a.b/d", "200 "},
        {"dir path=/ recursive=0", "200 d 0 1000 a\nd 0 1000 a.b\nd 0 1000 a0\nd 0 1000 f\n"},
        {"dir path=/a recursive=1", "200 d 0 1000 b\nd 0 1000 b/c\n"},
        {"dir path=/a/b/c recursive=1", "200 "},
        {"dir path=/f/x recursive=1", "200 f 7 5 x\n"},
        {"dir path=/no recursive=0", "event 2001"},
        {"dir path=/f/x/y recursive=0", "event 2003"},
        {"mkdir path=/a", "event 2002"},
        {"mkdir path=/", "event 2002"},
        {"mkdir path=/no/x", "event 2001"},
        {"mkdir path=/f/x/y", "event 2003"},
        {"copy source=/a destination=/e recursive=0", "event 2005"},
        {"copy source=/a destination=/a/b/z recursive=1", "event 2006"},
        {"copy source=/a destination=/a0 recursive=1", "event 2002"},
        {"copy source=/a destination=/no/e recursive=1", "event 2001"},
        {"copy source=/a destination=/f/x/e recursive=1", "event 2003"},
        {"copy source=/no destination=/e recursive=1", "event 2001"},
        {"copy source=/ destination=/e recursive=1", "event 2006"},
        {"copy source=/a destination=/a.c recursive=7", "200 "},
        {"copy source=/f/x destination=/a.c/x recursive=0", "200 "},
        {"copy source=/a0 destination=/a00 recursive=0", "200 "},
        {"dir path=/a.c recursive=1", "200 d 0 1000 b\nd 0 1000 b/c\nf 7 5 x\n"},
        {"move source=/a destination=/a/b/z recursive=0", "event 2006"},
        {"move source=/ destination=/e recursive=0", "event 2006"},
        {"move source=/a destination=/a.c recursive=0", "event 2002"},
        {"move source=/a destination=/f/\xc3\xa9 recursive=0", "200 "},
        {"move source=/f destination=/\xe2\x82\xac recursive=0", "200 "},
        {"dir path=/ recursive=1",
         "200 d 0 1000 a.b\nd 0 1000 a.b/d\nd 0 1000 a.c\nd 0 1000 a.c/b\nd 0 1000 a.c/b/c\n"
         "f 7 5 a.c/x\nd 0 1000 a0\nd 0 1000 a00\nd 0 1000 \xe2\x82\xac\n"
         "f 7 5 \xe2\x82\xac/x\nd 0 1000 \xe2\x82\xac/\xc3\xa9\nd 0 1000 \xe2\x82\xac/\xc3\xa9/b\n"
         "d 0 1000 \xe2\x82\xac/\xc3\xa9/b/c\n"},
        {"delete path=/a.c recursive=0", "event 2004"},
        {"delete path=/ recursive=1", "event 2006"},
        {"delete path=/a recursive=1", "event 2001"},
        {"delete path=/a.b recursive=1", "200 "},
        {"delete path=/a0 recursive=0", "200 "},
        {"delete path=/\xe2\x82\xac recursive=1", "200 "},
        {"dir path=/ recursive=0", "200 d 0 1000 a.c\nd 0 1000 a00\n"},
        {"gettime", "200 1000\n"},
    };
    for (const Step& step : steps)
        EXPECT_EQ(brief(step.form), step.expected) << step.form;
}

TEST_F(Sandbox, PathsThatAreNone) {
    const std::string longest(255, 'n');
    EXPECT_EQ(brief("mkdir path=/" + longest), "200 ");
    const std::string bad[] = {
        "",          "a",           "/.",    "/a/..",     "/../a",         "/\x01",
        "/\x7f",     "/\xc2\x85",   "/\xff", "/\xc0\xaf", "/\xed\xa0\x80", "/\xf4\x90\x80\x80",
        "/\xe2\x82", "/x" + longest};
    for (const std::string& path : bad)
        EXPECT_EQ(brief("mkdir path=" + path), "event 2007") << path;
}

TEST_F(Sandbox, RequestsThatAreNotOfTheProtocol) {
    const std::string form = "Content-Type: application/x-www-form-urlencoded\r\n";
    const std::string id = "Request-Id: 0123456789abcdefABCDEF0123456789\r\n";
    const std::string good = form + id;
    struct {
        std::string target, headers, body, detail;
    } const cases[] = {
        {"POST /ws/metabase", good, "", "first parameter is not 'action'"},
        {"POST /ws/metabase", good, "path=%2F&action=mkdir", "first parameter is not 'action'"},
        {"POST /ws/metabase", good, "action=fly", "unknown action 'fly' of service metabase"},
        {"POST /ws/spa", good, "action=gettime", "unknown action 'gettime' of service spa"},
        {"POST /ws/metabase", good, "action=mkdir", "'path' is missing"},
        {"POST /ws/metabase", good, "action=mkdir&path=%2Fa&path=%2Fa", "there twice"},
        {"POST /ws/metabase", good, "action=mkdir&path=%2Fa&mode=1", "no parameter 'mode'"},
        {"POST /ws/metabase", good, "action=dir&path=%2F&recursive=", "'recursive' is not"},
        {"POST /ws/metabase", good, "action=dir&path=%2F&recursive=-1", "'recursive' is not"},
        {"POST /ws/metabase", good, "action=dir&path=%2F&recursive=4294967296", "is not"},
        {"POST /ws/metabase", good, "action=mkdir&path=/a", "malformed"},
        {"POST /ws/metabase", good, "action=mkdir&path=%2fa", "malformed"},
        {"POST /ws/metabase", good, "action=mkdir&path=%2", "malformed"},
        {"POST /ws/metabase", good, "action=mkdir&path=%2Fa+b", "malformed"},
        {"POST /ws/metabase", good, "action=gettime&", "malformed"},
        {"POST /ws/metabase", good, "action=gettime&&", "malformed"},
        {"POST /ws/metabase?action=gettime", good, "", "belong into the body"},
        {"POST /ws/metabase", id + "Content-Type: text/plain\r\n", "action=gettime",
         "Content-Type"},
        {"POST /ws/metabase", form, "action=gettime", "Request-Id"},
        {"POST /ws/metabase", form + "Request-Id: 12\r\n", "action=gettime", "Request-Id"},
        {"POST /ws/metabase", good, "action=mkdir&path=" + std::string(100'000, 'x'), "too large"},
    };
    for (const auto& one : cases) {
        const std::string bytes = request(one.target, basic("all:secret") + one.headers, one.body);
        const Reply reply = Client(server->port()).ask(bytes);
        EXPECT_EQ(reply.brief(), "event 1003") << one.body;
        EXPECT_NE(reply.body.find(one.detail), std::string::npos) << reply.body;
    }
    const Step elsewhere[] = {{"GET /ws/metabase", "405"},
                              {"POST /ws/arch", "405"},
                              {"POST /ws/none", "404"},
                              {"GET /", "404"},
                              {"GET /__admin/none", "404"}};
    for (const Step& one : elsewhere)
        EXPECT_EQ(Client(server->port()).ask(request(one.form, "", "")).status(), one.expected);
}

TEST_F(Sandbox, LoginsAndPermissions) {
    struct {
        Call call;
        const char* expected;
        const char* detail;
    } const cases[] = {
        {{"gettime", "", ""}, "event 1001", "Permission denied: unknown login or wrong password"},
        {{"gettime", "", "all:wrong"}, "event 1001", "Permission denied"},
        {{"gettime", "", "all"}, "event 1001", "Permission denied"},
        {{"gettime", "", "nobody:secret"}, "event 1001", "Permission denied"},
        {{"gettime", "", "reader:see:all"}, "200 1000\n", ""},
        {{"discover", "", "reader:see:all", "keepalive"}, "200 ", ""},
        {{"dir path=/ recursive=1", "", "reader:see:all"}, "200 ", ""},
        {{"mkdir path=/a", "", "reader:see:all"},
         "event 1002",
         "Permission denied: reader may not mkdir"},
        {{"delete path=/a recursive=1", "", "reader:see:all"},
         "event 1002",
         "Permission denied: reader may not delete"},
        {{"mkdir path=/a"}, "200 ", ""},
        {{"gettime", "", "reader:secret"}, "event 1001", "Permission denied"},
    };
    for (const auto& one : cases) {
        const Reply reply = ask(one.call);
        EXPECT_EQ(reply.brief(), one.expected) << one.call.form << " " << one.call.login;
        EXPECT_NE(reply.body.find(one.detail), std::string::npos) << reply.body;
    }
    const auto arch = [&](const std::string& login) {
        return Client(server->port()).ask(request("GET /ws/arch", login, "")).brief();
    };
    EXPECT_EQ(arch(basic("reader:see:all")), "200 1");
    EXPECT_EQ(arch(""), "event 1001");
}

TEST_F(Sandbox, RequestThatCameTwiceIsCarriedOutOnce) {
    settings.database = testing::TempDir() + "kspool-sandbox-test.db";
    std::filesystem::remove(settings.database);
    restart();
    const Call lost{"mkdir path=/a", newId()};
    admin("POST", "faults", R"([{"kind": "lose"}])");
    EXPECT_EQ(ask(lost).end, "closed");
    admin("POST", "faults", R"([{"kind": "event"}])");
    EXPECT_EQ(ask(lost).brief(), "200 ");
    EXPECT_EQ(brief("delete path=/a recursive=0"), "200 ");
    const Call refused{"delete path=/a recursive=0", newId()};
    EXPECT_EQ(ask(refused).brief(), "event 2001");

    restart();
    EXPECT_EQ(ask(lost).brief(), "200 ");
    EXPECT_EQ(brief("dir path=/ recursive=1"), "200 ");
    EXPECT_EQ(brief("mkdir path=/a"), "200 ");
    EXPECT_EQ(ask(refused).brief(), "event 2001");
    EXPECT_EQ(ask({"mkdir path=/b", lost.id}).brief(), "event 1003");
    EXPECT_EQ(ask({"delete path=/a recursive=0", lost.id}).brief(), "event 1003");
    EXPECT_EQ(brief("dir path=/ recursive=1"), "200 d 0 1000 a\n");

    const json log = admin("GET", "requests");
    EXPECT_EQ(log["last"][0]["replayed"], true);
    EXPECT_EQ(log["last"][2]["replayed"], false);
    admin("POST", "reset");
    admin("POST", "clock", "1000");
    EXPECT_EQ(ask(lost).brief(), "200 ");
    EXPECT_EQ(brief("dir path=/ recursive=1"), "200 d 0 1000 a\n");
    for (const char* end : {"", "-wal", "-shm"})
        std::filesystem::remove(settings.database + end);
}

TEST_F(Sandbox, RemembersTheLastTenThousandRequests) {
    Client client(server->port());
    const Call first{"mkdir path=/a", newId()};
    const Call second{"delete path=/b recursive=0", newId()};
    EXPECT_EQ(client.ask(request(first)).brief(), "200 ");
    EXPECT_EQ(client.ask(request(second)).brief(), "event 2001");
    for (int i = 0; i < 9'998; ++i)
        ASSERT_EQ(client.ask(request(Call{"mkdir path=/b"})).status(), i == 0 ? "200" : "409");
    EXPECT_EQ(client.ask(request(first)).brief(), "200 ");
    EXPECT_EQ(client.ask(request(Call{"mkdir path=/c"})).brief(), "200 ");
    EXPECT_EQ(client.ask(request(first)).brief(), "event 2002");
    EXPECT_EQ(admin("GET", "requests")["connections"], 1);
}

TEST_F(Sandbox, FaultsAsTheClientSeesThem) {
    struct {
        const char* fault;
        const char* end;
        const char* status;
        const char* head;
        std::string body;
        bool carriedOut;
    } const cases[] = {
        {R"({"kind": "delay", "ms": 1})", "kept", "200", "", "1000\n", true},
        {R"({"kind": "reset"})", "reset", "", "", "", false},
        {R"({"kind": "lose"})", "closed", "", "", "", true},
        {R"({"kind": "cut", "bytes": 2})", "closed", "200", "Content-Length: 16", "10", true},
        {R"({"kind": "garbage", "text": "+OK hello"})", "closed", "", "+OK hello", "", false},
        {R"({"kind": "oversize", "bytes": 99999})", "kept", "200", "", std::string(99999, 'x'),
         false},
        {R"({"kind": "nul"})", "kept", "200", "", std::string("10\00000\n", 6), true},
        {R"({"kind": "unbounded"})", "closed", "200", "Connection: close", "1000\n", true},
        {R"({"kind": "chunked"})", "kept", "200", "Transfer-Encoding: chunked",
         "5\r\n1000\n\r\n0\r\n\r\n", true},
        {R"({"kind": "type"})", "kept", "200", "Content-Type: text/html", "1000\n", true},
        {R"({"kind": "status", "code": 429, "retryAfter": 3, "body": "later"})", "kept", "429",
         "Retry-After: 3", "later", false},
        {R"({"kind": "redirect", "location": "/x", "code": 307})", "kept", "307", "Location: /x",
         "", false},
    };
    for (const auto& one : cases) {
        admin("POST", "reset");
        admin("POST", "clock", "1000");
        ASSERT_TRUE(admin("POST", "faults", std::string("[") + one.fault + "]").contains("taken"));
        Client client(server->port());
        const Reply reply = client.ask(request(Call{"gettime"}));
        EXPECT_EQ(reply.end, one.end) << one.fault;
        EXPECT_EQ(reply.status(), one.status) << one.fault;
        EXPECT_NE(reply.head.find(one.head), std::string::npos) << reply.head;
        EXPECT_EQ(reply.body, one.body) << one.fault;
        admin("POST", "faults", std::string("[") + one.fault + "]");
        ask({"mkdir path=/made"});
        EXPECT_EQ(brief("dir path=/ recursive=0"), one.carriedOut ? "200 d 0 1000 made\n" : "200 ")
            << one.fault;
    }
}

TEST_F(Sandbox, EventsToOrder) {
    const std::pair<const char*, json> cases[] = {
        {R"({"kind": "event", "code": 77, "description": "d", "severity": "WARNING"})",
         {{"eventCode", 77}, {"detail", "d"}, {"severity", "WARNING"}}},
        {R"({"kind": "event", "severity": null, "description": null, "serverAddress": null})",
         {{"eventCode", 9001}, {"severity", nullptr}, {"detail", nullptr}}},
        {R"({"kind": "bad-event"})", {{"eventCode", nullptr}}},
        {R"({"kind": "bad-event", "code": 0})", {{"eventCode", 0}}},
        {R"({"kind": "bad-event", "code": "12"})", {{"eventCode", "12"}}},
        {R"({"kind": "bad-event", "code": 4294967296})", {{"eventCode", 4294967296}}},
    };
    for (const auto& [fault, expected] : cases) {
        admin("POST", "faults", std::string("[") + fault + "]");
        const Reply reply = ask({"gettime"});
        EXPECT_EQ(reply.status(), "500") << fault;
        const json body = json::parse(reply.body);
        for (const auto& [name, value] : expected.items())
            EXPECT_EQ(body.value(name, json()), value) << fault;
    }
}

TEST_F(Sandbox, FaultsInOrderTimesChanceAndAction) {
    admin("POST", "faults", R"([{"kind": "status", "code": 502, "times": 2, "action": "gettime"},
                                {"kind": "status", "code": 504}])");
    EXPECT_EQ(ask({"dir path=/ recursive=0"}).status(), "504");
    EXPECT_EQ(ask({"gettime"}).status(), "502");
    EXPECT_EQ(admin("GET", "faults")["faults"][0]["times"], 1);
    EXPECT_EQ(ask({"gettime"}).status(), "502");
    EXPECT_EQ(ask({"gettime"}).status(), "200");

    const auto hits = [&] {
        admin("DELETE", "faults");
        admin("POST", "faults", R"([{"kind": "status", "times": 1000, "chance": 0.3, "seed": 5}])");
        Client client(server->port());
        std::string pattern;
        for (int i = 0; i < 200; ++i)
            pattern += client.ask(request(Call{"gettime"})).status() == "503" ? '!' : '.';
        return pattern;
    };
    const std::string pattern = hits();
    EXPECT_EQ(hits(), pattern);
    EXPECT_NEAR(static_cast<double>(std::count(pattern.begin(), pattern.end(), '!')), 60, 25);

    for (const char* bad :
         {R"({})", R"([1])", R"([{"kind": "none"}])", R"([{"kind": "reset", "ms": 1}])",
          R"([{"kind": "delay", "ms": "1"}])", R"([{"kind": "status", "code": 1}])", "["})
        EXPECT_TRUE(admin("POST", "faults", bad).contains("error")) << bad;
}

TEST_F(Sandbox, WhatWaitsHoldsNothingUp) {
    admin("POST", "faults", R"([{"kind": "stall", "ms": 600000}, {"kind": "delay", "ms": 600000},
                                {"kind": "stall", "ms": 50}])");
    Client stalled(server->port());
    Client delayed(server->port());
    stalled.send(request(Call{"gettime"}));
    const Reply head = stalled.receive(300);
    EXPECT_EQ(head.end + head.status() + head.body, "silent200");
    delayed.send(request(Call{"gettime"}));
    EXPECT_EQ(delayed.receive(100).end, "silent");
    EXPECT_EQ(brief("gettime"), "200 1000\n");
    EXPECT_EQ(brief("gettime"), "200 1000\n");

    // Nor the end of the server. Heads that never end are forgotten with it.
    Client half(server->port());
    half.send("POST /ws/metabase HTTP/1.1\r\nHost: x\r\n");
    const auto start = std::chrono::steady_clock::now();
    server.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
}

TEST_F(Sandbox, LogHasNoSecrets) {
    const std::string login = basic("all:secret");
    ask({"mkdir path=/a password=hidden"});
    for (int i = 0; i < 120; ++i)
        ask({"gettime"});
    ask({"mkdir path=/b password=hidden"});
    const json log = admin("GET", "requests");
    EXPECT_EQ(log["total"], 122);
    EXPECT_EQ(log["actions"], json({{"gettime", 120}, {"mkdir", 2}}));
    EXPECT_EQ(log["last"].size(), 100);
    EXPECT_EQ(log["last"][99]["parameters"], json({{"path", "/b"}}));
    EXPECT_EQ(log.dump().find(login.substr(login.size() - 12, 10)), std::string::npos);
    const std::string browser = request("GET /__admin/requests", "Origin: http://a.b\r\n", "");
    EXPECT_EQ(Client(server->port()).ask(browser).status(), "403");
}

TEST_F(Sandbox, TakesAFolderOver) {
    const std::filesystem::path folder = testing::TempDir() + "kspool-sandbox-tree";
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder / "d");
    std::ofstream(folder / "d" / "f") << "12345";
    std::ofstream(folder / "bad\nname") << "x";
    std::filesystem::create_symlink("/", folder / "link");
    settings.tree = folder;
    restart();
    EXPECT_EQ(brief("dir path=/ recursive=0").substr(0, 8), "200 d 0 ");
    const std::string file = brief("dir path=/d recursive=0");
    EXPECT_EQ(file.substr(0, 8) + file.substr(file.size() - 3), "200 f 5  f\n");
    EXPECT_NE(server->warning().find("2 entries left out"), std::string::npos);
    EXPECT_EQ(brief("dir path=/link recursive=0"), "event 2001");
    EXPECT_TRUE(admin("POST", "tree", R"([{"path": "/d/f/g"}])").contains("error"));
    std::filesystem::remove_all(folder);
}

TEST(SandboxStart, SaysWhatIsWrong) {
    const auto reason = [](const sandbox::Settings& settings) -> std::string {
        try {
            const sandbox::Server server(settings);
            return "it started";
        } catch (const std::exception& error) {
            return error.what();
        }
    };
    EXPECT_EQ(reason({}), "there is no account, so nobody could log in");
    sandbox::Settings settings;
    settings.accounts = {{"a", "b", {"read"}}};
    const sandbox::Server first(settings);
    settings.port = first.port();
    EXPECT_NE(reason(settings).find("Address already in use"), std::string::npos);
    settings.port = 0;
    settings.accounts[0].permissions = {"fly"};
    EXPECT_NE(reason(settings).find("'fly'"), std::string::npos);
}

}  // namespace
