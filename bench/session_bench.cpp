// Requests of a session, one after another, beside a bare libcurl loop that sends the same bytes
// with the same options. Both speak to the development server, which runs in this process.
#include <curl/curl.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_run.h"
#include "mb.h"
#include "sandbox/sandbox.h"

namespace bench {
namespace {

constexpr int kRounds = 9;
constexpr size_t kRequests = 10'000;

/// A server with its folder, and an agent's login.
class Pool {
  public:
    explicit Pool(bool tls) {
        char name[] = "/tmp/session-bench-XXXXXX";
        folder_ = std::string(mkdtemp(name)) + "/pool";
        const std::string url = tls ? "https://127.0.0.1:1" : "http://127.0.0.1:1";
        sandbox::setUp({folder_, url, tls});
        sandbox::Settings settings = sandbox::readSetup(folder_);
        settings.port = 0;
        settings.accounts = {{"bench", "secret", {"read"}}};
        server_ = std::make_unique<sandbox::Server>(settings);
    }
    ~Pool() { std::filesystem::remove_all(std::filesystem::path(folder_).parent_path()); }
    Pool(const Pool&) = delete;
    Pool& operator=(const Pool&) = delete;

    const std::string& url() const { return server_->url(); }
    std::string config() const { return folder_ + "/agent.cfg"; }
    std::string key(const char* file) const { return folder_ + "/tls/client/" + file; }
    /// Aborts unless the server saw so many connections: one for each round of each peer, so that
    /// no peer pays for reconnecting.
    void expectConnections(size_t most) {
        const std::string wanted = "\"connections\":" + std::to_string(most) + ",";
        if (server_->admin("GET", "requests").find(wanted) == std::string::npos) abort();
    }

  private:
    std::string folder_;
    std::unique_ptr<sandbox::Server> server_;
};

void session(benchmark::State& state, Pool& pool) {
    MBSession* session =
        MBInitWithAgentCfg(pool.url().c_str(), 0, "bench", "secret", pool.config().c_str());
    uint32_t time = 0;
    if (session == nullptr || MBGetTime(session, &time) != 0) abort();
    const double seconds = secondsOf([&] {
        for (size_t i = 0; i < kRequests; ++i)
            if (MBGetTime(session, &time) != 0) abort();
    });
    MBShutdown(session);
    report(state, seconds, kRequests);
}

/// `count` sessions at once, each in a thread of its own; together they send as many requests as
/// one.
void sessions(benchmark::State& state, const Pool& pool, size_t count) {
    std::vector<MBSession*> all(count);
    uint32_t time = 0;
    for (MBSession*& one : all) {
        one = MBInitWithAgentCfg(pool.url().c_str(), 0, "bench", "secret", pool.config().c_str());
        if (one == nullptr || MBGetTime(one, &time) != 0) abort();
    }
    const double seconds = secondsOf([&] {
        std::vector<std::thread> threads;
        for (MBSession* one : all) {
            threads.emplace_back([=] {
                uint32_t now = 0;
                for (size_t i = 0; i < kRequests / count; ++i)
                    if (MBGetTime(one, &now) != 0) abort();
            });
        }
        for (std::thread& thread : threads)
            thread.join();
    });
    for (MBSession* one : all)
        MBShutdown(one);
    report(state, seconds, kRequests / count * count);
}

size_t take(char* bytes, size_t, size_t length, void* body) {
    static_cast<std::string*>(body)->append(bytes, length);
    return length;
}

size_t ignore(char*, size_t, size_t length, void*) {
    return length;
}

void bare(benchmark::State& state, Pool& pool) {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    CURL* curl = curl_easy_init();
    const std::string url = pool.url() + "/ws/metabase";
    std::string body;
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1});
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, 10000L);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, 30000L);
    curl_easy_setopt(curl, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(curl, CURLOPT_USERAGENT, "kspool");
    curl_easy_setopt(curl, CURLOPT_NOPROXY, "*");
    curl_easy_setopt(curl, CURLOPT_CAINFO, pool.key("ca.pem").c_str());
    curl_easy_setopt(curl, CURLOPT_SSLCERT, pool.key("cert.pem").c_str());
    curl_easy_setopt(curl, CURLOPT_SSLKEY, pool.key("key.pem").c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPAUTH, long{CURLAUTH_BASIC});
    curl_easy_setopt(curl, CURLOPT_USERPWD, "bench:secret");
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, "action=gettime");
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, take);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, ignore);
    curl_slist* headers = curl_slist_append(nullptr, "Expect:");
    headers = curl_slist_append(headers, "Request-Id: 00000000000000000000000000000000");
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    if (curl_easy_perform(curl) != CURLE_OK) abort();
    const double seconds = secondsOf([&] {
        for (size_t i = 0; i < kRequests; ++i) {
            body.clear();
            if (curl_easy_perform(curl) != CURLE_OK || body.empty()) abort();
        }
    });
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
    report(state, seconds, kRequests);
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    bench::Pool http(false), tls(true), many(false);
    const struct {
        const char* work;
        const char* table;
        bench::Pool& pool;
        void (*run)(benchmark::State&, bench::Pool&);
    } rows[] = {{"http", "kspool", http, bench::session},
                {"http", "libcurl", http, bench::bare},
                {"tls", "kspool", tls, bench::session},
                {"tls", "libcurl", tls, bench::bare}};
    for (const auto& row : rows) {
        bench::registerWork(row.work, row.table, bench::kRequests, bench::kRounds,
                            [=](benchmark::State& state) { row.run(state, row.pool); });
    }
    for (const size_t count : {1U, 2U, 4U, 8U}) {
        bench::registerWork(
            "sessions", "kspool", count, bench::kRounds,
            [&, count](benchmark::State& state) { bench::sessions(state, many, count); });
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    http.expectConnections(2 * bench::kRounds);
    tls.expectConnections(2 * bench::kRounds);
}
