// Requests of any line, head and body to a pool server in this process. Each whole one has an
// answer of the documented form, the server never fails, a repetition changes nothing, and what the
// server tells of its data is what stands in its database.
#include <csignal>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>

#include "platform/events.h"
#include "sandbox/sandbox.h"
#include "sandbox/store/database.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/raw_server.h"

namespace {

constexpr char kForm[] = "application/x-www-form-urlencoded";
constexpr char kAll[] = "Authorization: Basic YWxsOng=\r\n";
constexpr char kFind[] =
    "action=find&dataselection=1&filter=0%7C0%7C%7C-1%7C-1%7C%2A%7C%2A%7C%2A%7C%2A%7C%2A%7C%2A%7C"
    "%2A%7C%2A%7C%2A%7C%2A%7C-1%7C-1%7C-1%7C-1%7C-1%7C-1%7C-1%7C-1%7C-1%7C-1%7C%2A";
constexpr char kWithoutParent[] =
    "SELECT count(*) FROM (SELECT rtrim(path, replace(path, '/', '')) AS folder FROM entries) WHERE"
    " folder <> '/' AND folder NOT IN (SELECT path || '/' FROM entries WHERE kind = 'd')";

long statusOf(const Received& answer) {
    const bool isHttp = answer.head.starts_with("HTTP/1.1 ");
    return isHttp ? strtol(answer.head.c_str() + 9, nullptr, 10) : 0;
}

void checkForm(const Received& answer) {
    static const std::map<uint32_t, int> kEvents = {
#define ROW(name, code, status, text) {code, status},
        KSPOOL_EVENTS(ROW)
#undef ROW
    };
    const long status = statusOf(answer);
    MUST(status >= 200 && status < 500 && answer.body.find('\0') == std::string::npos);
    if (headerOf(answer.head, "Content-Type") != "application/problem+json") return;
    const auto problem = nlohmann::json::parse(answer.body);
    MUST(problem.at("status") == status && problem.at("severity") == "ERROR");
    if (problem.contains("eventCode")) MUST(kEvents.at(problem["eventCode"]) == status);
}

sandbox::Settings settings(const char* file) {
    sandbox::Settings settings;
    settings.database = file;
    settings.accounts = {{"all", "x", {"read", "write", "delete"}}, {"reader", "x", {"read"}}};
    return settings;
}

class Pool {
  public:
    Pool() { signal(SIGALRM, SIG_IGN); }  // the fuzzer's, which would interrupt a wait

    Received ask(const std::string& line, const std::string& head, const std::string& body,
                 bool isWhole = true) {
        const std::string bytes = line + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n" +
                                  head + "Content-Length: " + std::to_string(body.size()) +
                                  "\r\n\r\n" + body;
        // Bytes that may be no whole request may have no answer.
        Received answer = RawClient(server_.port()).ask(bytes, isWhole ? 20'000 : 3);
        if (isWhole) MUST(answer.end != "silent" && statusOf(answer) != 0);
        return answer;
    }

    void reset() { server_.admin("POST", "reset"); }

    void make(fuzz::Input& input, const std::string& id) {
        static constexpr const char* kMethods[] = {"POST",   "POST", "POST", "GET",
                                                   "DELETE", "HEAD", "BREW"};
        static constexpr const char* kAccounts[] = {kAll, kAll, kAll,
                                                    "Authorization: Basic cmVhZGVyOng=\r\n", ""};
        static constexpr const char* kTypes[] = {kForm, "text/plain", "application/json", "x", ""};
        static constexpr const char* kPaths[] = {
            "/ws/metabase", "/ws/spa", "/ws/keepalive", "/ws/arch", "/__admin/", "/ws/", ""};
        const std::string method = kMethods[input.below(std::size(kMethods))];
        const std::string account = kAccounts[input.below(std::size(kAccounts))];
        const std::string type = kTypes[input.below(std::size(kTypes))];
        const std::string path = kPaths[input.below(std::size(kPaths))];
        const std::string target = path + input.until('\xff'), body = input.until('\xff');
        if ((target + body).find("/__admin/events") != std::string::npos) return;  // has no end
        const auto isPlain = [](char c) { return c > ' ' && c < 0x7f; };
        const bool isWhole =
            target.starts_with('/') && std::all_of(target.begin(), target.end(), isPlain);
        const std::string head =
            account + "Request-Id: " + id + "\r\nContent-Type: " + type + "\r\n";
        server_.admin("POST", "clock", "1000");
        const Received answer = ask(method + " " + target, head, body, isWhole);
        if (isWhole && method != "HEAD") checkForm(answer);
        if (isWhole && path.starts_with("/ws/")) {
            const Received again = ask(method + " " + target, head, body);
            MUST(statusOf(again) == statusOf(answer) && again.body == answer.body);
        }
        server_.admin("DELETE", "faults");
    }

    /// Asks the server for all that it has, and counts the same in the database.
    void audit() {
        static unsigned count = 0;
        const auto number = [&](const char* sql) {
            auto query = database_.query(sql);
            MUST(query.step());
            return query.number(0);
        };
        const auto linesOf = [&](const char* form, int64_t least) {
            const std::string head = std::string(kAll) + "Request-Id: " + std::string(32, 'e') +
                                     "\r\nContent-Type: " + kForm + "\r\n";
            const Received told = ask("POST /ws/metabase", head, form);
            if (statusOf(told) != 200) return -least;
            return std::count(told.body.begin(), told.body.end(), '\n') - least;
        };
        // Without a data selection of this number, there are none to tell.
        const int64_t found = linesOf(kFind, 3);
        MUST(found == -3 || found == number("SELECT count(*) FROM pos WHERE ds = 1"));
        MUST(linesOf("action=dir&path=%2F&recursive=1", 0) ==
             number("SELECT count(*) FROM entries"));
        MUST(number(kWithoutParent) == 0);
        if (++count % 256 == 0) {
            auto check = database_.query("PRAGMA integrity_check");
            MUST(check.step() && check.text(0) == "ok");
        }
    }

  private:
    const fuzz::ScratchFile file_{"kspool-fuzz-sandbox"};
    sandbox::Server server_{settings(file_.path())};
    sandbox::Database database_{file_.path()};
};

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    static Pool pool;
    fuzz::Input input(bytes, size);
    pool.reset();
    for (int i = 0; i < 6 && !input.isEmpty(); ++i)
        pool.make(input, std::string(31, 'a') + std::to_string(i));
    pool.audit();
    return 0;
}
