// Sessions and a server that goes wrong, which is killed and started again: what the sessions were
// told, against what the server did. Usage: chaos_run SANDBOX [REQUESTS [GATEWAY]]
// GATEWAY is tests/support/gateway.sh: the sessions talk to the server through it then.
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <thread>

#include "platform/support.h"
#include "platform/ws.h"
#include "sandbox/sandbox.h"
#include "sandbox/store/database.h"
#include "tests/chaos/chaos_client.h"
#include "tests/support/folder.h"
#include "tests/support/raw_server.h"

namespace {

constexpr unsigned kSessions = 16;  // most of them may wait at a time
constexpr uint64_t kRequestsPerKill = 10'000;
constexpr uint64_t kAnswerLimit = 4 << 20, kReviewLimit = 1 << 30;

std::string data(const std::string& name) {
    std::ifstream file(CHAOS_DATA "/" + name);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// The server as a program of its own, on one port, and a gateway to it on the next one, unless
/// that is NULL.
class Server {
  public:
    Server(std::string program, const char* gateway, uint64_t seed)
        : program_(std::move(program)), gateway_(gateway) {
        sandbox::setUp({pool(), "http://127.0.0.1:1", false, false});
        // Below the ports that the system gives to clients: one that looks for a server that is
        // down must not find itself.
        for (unsigned tries = 0; tries < 20; ++tries) {
            port_ = static_cast<uint16_t>(10'000 + (seed + tries * uint64_t{997}) % 20'000);
            if (start()) return;
        }
        throw std::runtime_error("the server does not start");
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    ~Server() { end(SIGKILL); }

    std::string pool() const { return folder_.path + "/pool"; }
    std::string url() const {
        return "http://127.0.0.1:" + std::to_string(port_ + (gateway_ != nullptr ? 1 : 0));
    }

    bool start() {
        int ready[2];
        if (pipe2(ready, O_CLOEXEC) != 0) return false;
        const std::string folder = pool(), port = std::to_string(port_),
                          next = std::to_string(port_ + 1);
        child_ = fork();
        if (child_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            dup2(ready[1], STDOUT_FILENO);
            if (gateway_ != nullptr)
                execl(gateway_, gateway_, folder_.path.c_str(), next.c_str(), port.c_str(),
                      program_.c_str(), "serve", folder.c_str(), "--no-sync", "--port",
                      port.c_str(), nullptr);
            execl(program_.c_str(), program_.c_str(), "serve", folder.c_str(), "--no-sync",
                  "--port", port.c_str(), nullptr);
            _exit(127);
        }
        close(ready[1]);
        char first = '\0';
        const bool serves = read(ready[0], &first, 1) == 1 && first == 'R';
        close(ready[0]);
        if (!serves) end(SIGKILL);
        return serves;
    }

    /// True when it ended as one that was told to stop.
    bool end(int number) {
        int status = -1;
        if (child_ > 0) {
            kill(child_, number);
            waitpid(child_, &status, 0);
        }
        child_ = -1;
        return status == 0;
    }

    /// The gateway ends with the server, for longer than any session tries again: the last attempt
    /// finds nobody, whatever came before.
    bool killAndStart() {
        end(SIGKILL);
        if (gateway_ != nullptr) std::this_thread::sleep_for(std::chrono::milliseconds(2'500));
        return start();
    }

    std::string admin(const std::string& method, const std::string& function,
                      const std::string& body = {}) const {
        const Received answer = RawClient(port_).ask(
            method + " /__admin/" + function + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" +
                "Content-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
                "\r\n\r\n" + body,
            60'000);
        if (!answer.brief().starts_with("200 ")) throw std::runtime_error(answer.brief());
        return answer.body;
    }

  private:
    std::string program_;
    const char* gateway_;
    Folder folder_;
    uint16_t port_ = 0;
    pid_t child_ = -1;
};

/// A run, from a new pool to what became of it.
class Run {
  public:
    Run(const char* program, const char* gateway, uint64_t requests, uint64_t seed)
        : server_(program, gateway, seed), requests_(requests), random_(seed) {
        chaos::Pool pool = {server_.url(), server_.pool() + "/agent.cfg", {}};
        std::ifstream(server_.pool() + "/agent.password") >> pool.password;
        std::string tree;
        for (unsigned i = 0; i < kSessions; ++i) {
            const chaos::Client& client = clients_.emplace_back(i, seed, pool);
            for (const char* name : {"a", "b"})
                tree.append(tree.empty() ? "[" : ",")
                    .append(R"({"size":1,"mtime":1,"path":")" + client.folder() + "/tree/")
                    .append(name + std::string("\"}"));
        }
        server_.admin("POST", "tree", tree + "]");
        sandbox::Database(database()).script(data("audit.sql").c_str());
        orderFaults();
    }

    void go() {
        std::vector<std::thread> threads;
        for (chaos::Client& client : clients_)
            threads.emplace_back([&] { client.run(done_, requests_); });
        const uint64_t kills = std::max<uint64_t>(1, requests_ / kRequestsPerKill);
        const uint64_t part = requests_ / (kills + 1);
        while (kills_ < kills) {
            const uint64_t moment = part * (kills_ + 1) - random_() % (part / 2);
            abortUntil(moment);
            countFaults();
            if (!server_.killAndStart()) break;
            ++kills_;
            orderFaults();
        }
        abortUntil(kills_ == kills ? requests_ : 0);
        for (std::thread& thread : threads)
            thread.join();
        if (kills_ < kills) throw std::runtime_error("the server did not come back");
        countFaults();
        server_.admin("DELETE", "faults");
    }

    /// How many differences there are. They are printed.
    size_t compare() {
        std::vector<std::string> differences;
        WSSetAnswerLimit(kReviewLimit);
        for (chaos::Client& client : clients_)
            client.review();
        if (!server_.end(SIGTERM)) differences.emplace_back("the server did not end well");
        std::map<std::string, uint64_t> made = audit();
        for (const auto& [what, times] : made)
            changes_ += times;
        for (const chaos::Client& client : clients_) {
            client.ledger().compare(made, differences);
            differences.insert(differences.end(), client.differences().begin(),
                               client.differences().end());
        }
        for (const auto& [what, times] : made)
            differences.push_back(what + ": told to nobody");
        for (size_t i = 0; i < differences.size() && i < 20; ++i)
            fprintf(stderr, "chaos_run: %s\n", differences[i].c_str());
        return differences.size();
    }

    void print() const {
        uint64_t counts[chaos::kOutcomes] = {}, aborted = 0, timedOut = 0;
        for (const chaos::Client& client : clients_) {
            aborted += client.aborted();
            timedOut += client.timedOut();
            for (int i = 0; i < chaos::kOutcomes; ++i)
                counts[i] += client.count(static_cast<chaos::Outcome>(i));
        }
        std::cout << "chaos: " << requests_ << " requests of " << kSessions << " sessions, "
                  << faults_ << " faults, " << kills_ << " kills, " << aborted << " aborts, "
                  << timedOut << " time-outs; " << counts[chaos::kConfirmed] << " confirmed, "
                  << counts[chaos::kRefused] << " refused, " << counts[chaos::kUnknown]
                  << " unknown; " << changes_ << " changes made";
    }

  private:
    std::string database() const { return server_.pool() + "/pool.db"; }

    /// Aborts a request now and then, until so many were made. Half of the sessions are left alone:
    /// an abort comes before nearly every time-out.
    void abortUntil(uint64_t done) {
        while (done_ < done) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            if (random_() % 20 == 0) clients_[random_() % (kSessions / 2)].abort();
        }
    }

    void orderFaults() {
        std::string list = data("faults.json");
        for (size_t at = list.find('{'); at != std::string::npos; at = list.find('{', at + 1))
            list.insert(at + 1,
                        R"("times":1000000000,"seed":)" + std::to_string(random_() >> 12) + ",");
        server_.admin("POST", "faults", list);
    }

    void countFaults() {
        const std::string report = server_.admin("GET", "faults");
        const size_t at = report.find("\"taken\":");
        if (at != std::string::npos) faults_ += std::stoull(report.substr(at + 8));
    }

    std::map<std::string, uint64_t> audit() const {
        std::map<std::string, uint64_t> made;
        sandbox::Database opened(database());
        sandbox::Query row = opened.query("SELECT what, count(*) FROM audit GROUP BY what");
        while (row.step())
            made[std::string(row.text(0))] = static_cast<uint64_t>(row.number(1));
        return made;
    }

    Server server_;
    std::deque<chaos::Client> clients_;
    const uint64_t requests_;
    std::mt19937_64 random_;
    std::atomic<uint64_t> done_ = 0;
    uint64_t kills_ = 0, faults_ = 0, changes_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
    const char* given = getenv("KSPOOL_TEST_SEED");
    const uint64_t seed = given != nullptr ? strtoull(given, nullptr, 0) : std::random_device()();
    const uint64_t requests = argc > 2 ? strtoull(argv[2], nullptr, 10) : 5000;
    if (argc < 2 || requests < 100) {
        fprintf(stderr, "usage: chaos_run SANDBOX [REQUESTS [GATEWAY]]\n");
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    qlxSetSink([](uint32_t, uint32_t, const char*, void*) {}, nullptr);
    // One retry of a query, at once.
    MBSetTimeOut(0);
    MBSetRetryCount(1);
    WSSetAnswerLimit(kAnswerLimit);
    try {
        Run run(argv[1], argc > 3 ? argv[3] : nullptr, requests, seed);
        run.go();
        const size_t differences = run.compare();
        run.print();
        std::cout << ", " << differences << " differences; KSPOOL_TEST_SEED=" << seed << std::endl;
        return differences == 0 ? 0 : 1;
    } catch (const std::exception& error) {
        std::cerr << "chaos_run: " << error.what() << "; KSPOOL_TEST_SEED=" << seed << std::endl;
        return 1;
    }
}
