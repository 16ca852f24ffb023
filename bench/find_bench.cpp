// A query with a 100 MB answer: its download beside a bare libcurl download of the same bytes, and
// its cursor beside a loop that only finds the line ends and terminates the lines.
#include <curl/curl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include "bench/bench_run.h"
#include "mb.h"
#include "mb/mb_int.h"

namespace bench {
namespace {

constexpr int kRounds = 9;
constexpr size_t kLines = 710'000;
constexpr size_t kLineSize = 140;

/// An answer of POs of a usual length.
const std::string& answer() {
    static const std::string text = [] {
        std::string made = "names\ntypes\n" + std::to_string(kLines) + "\n";
        for (size_t i = 0; i < kLines; ++i)
            made += std::string(kLineSize - 1 - i % 20, 'x') + std::string(i % 20, '|') + "\n";
        return made;
    }();
    return text;
}

/// A server that sends the same answer to every request, so that its own work is not measured.
class Server {
  public:
    Server() : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        if (bind(listener_, generic, length) != 0 || listen(listener_, 8) != 0) abort();
        getsockname(listener_, generic, &length);
        url_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
        std::thread([this] { serve(); }).detach();  // for as long as the program runs
    }
    const std::string& url() const { return url_; }

  private:
    void serve() const {
        const std::string bytes =
            "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nConnection: close\r\nContent-Length: " +
            std::to_string(answer().size()) + "\r\n\r\n" + answer();
        for (;;) {
            const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            char request[65536];
            if (fd < 0 || recv(fd, request, sizeof request, 0) <= 0) abort();
            for (size_t sent = 0; sent < bytes.size();) {
                const ssize_t now =
                    send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
                if (now <= 0) break;
                sent += static_cast<size_t>(now);
            }
            close(fd);
        }
    }

    int listener_;
    std::string url_;
};

const Server& server() {
    static const Server one;
    return one;
}

void find(benchmark::State& state) {
    const std::string config = "/tmp/find-bench-" + std::to_string(getpid()) + ".cfg";
    std::ofstream(config) << "\n";
    MBSession* session =
        MBInitWithAgentCfg(server().url().c_str(), 0, nullptr, nullptr, config.c_str());
    unlink(config.c_str());
    MBPOFilter filter{};
    filter.size = sizeof filter;
    MBPOFilterInit(&filter);
    char* text = nullptr;
    uint32_t count = 0;
    const double seconds = secondsOf([&] {
        if (MBPOFind(session, 1, &filter, &text, nullptr, &count) != 0) abort();
    });
    if (count != kLines) abort();
    free(text);
    MBShutdown(session);
    report(state, seconds, kLines);
}

size_t take(char* bytes, size_t, size_t length, void* body) {
    static_cast<std::string*>(body)->append(bytes, length);
    return length;
}

void download(benchmark::State& state) {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    CURL* curl = curl_easy_init();
    std::string body;
    curl_easy_setopt(curl, CURLOPT_URL, server().url().c_str());
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_NOPROXY, "*");
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, "action=find");
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, take);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
    const double seconds = secondsOf([&] {
        if (curl_easy_perform(curl) != CURLE_OK) abort();
    });
    if (body.size() != answer().size()) abort();
    curl_easy_cleanup(curl);
    report(state, seconds, kLines);
}

/// Fresh copies of an answer's lines, since a cursor changes them; as many as make a round long
/// enough to be timed.
class Copies {
  public:
    explicit Copies(size_t lines) {
        for (size_t i = 0; i < lines; ++i)
            one_ += std::string(kLineSize - 1 - i % 20, 'x') + std::string(i % 20, '|') + "\n";
        constexpr size_t kEnough = size_t{16} << 20;
        count_ = std::max<size_t>(1, kEnough / one_.size());
        text_.reserve(count_ * one_.size());
        for (size_t i = 0; i < count_; ++i)
            text_ += one_;
    }
    size_t count() const { return count_; }
    size_t length() const { return one_.size(); }
    char* at(size_t i) { return text_.data() + i * one_.size(); }

  private:
    std::string one_, text_;
    size_t count_ = 0;
};

template <typename Walk>
void walkLines(benchmark::State& state, size_t lines, Walk walk) {
    Copies copies(lines);
    size_t walked = 0;
    const double seconds = secondsOf([&] {
        for (size_t i = 0; i < copies.count(); ++i)
            walked += walk(copies.at(i), copies.length());
    });
    if (walked != lines * copies.count()) abort();
    report(state, seconds, walked);
}

void cursorLines(benchmark::State& state, size_t lines) {
    MBPOCursor cursor{};
    walkLines(state, lines, [&](char* text, size_t) {
        cursor.nextLine = text;
        cursor.poIndex = 0;
        cursor.poCount = static_cast<uint32_t>(lines);
        char* line = nullptr;
        size_t walked = 0;
        while (MBPOStringFindNext(&cursor, &line) == 0)
            ++walked;
        return walked;
    });
}

void memchrLines(benchmark::State& state, size_t lines) {
    walkLines(state, lines, [](char* text, size_t length) {
        const char* end = text + length;
        size_t walked = 0;
        for (char* at = text; at < end; ++walked) {
            auto* found = static_cast<char*>(memchr(at, '\n', static_cast<size_t>(end - at)));
            *found = '\0';
            at = found + 1;
        }
        return walked;
    });
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    bench::warmMemory(size_t{500} << 20);
    using benchmark::State;
    bench::registerWork("find", "kspool", bench::kLines, bench::kRounds, bench::find);
    bench::registerWork("find", "libcurl", bench::kLines, bench::kRounds, bench::download);
    // Answers of 1 kB to 1 GB.
    for (size_t lines = bench::kLines / 100'000; lines <= bench::kLines * 10; lines *= 10) {
        const int rounds = lines > bench::kLines ? 3 : bench::kRounds;
        bench::registerWork("lines", "kspool", lines, rounds,
                            [=](State& state) { bench::cursorLines(state, lines); });
        bench::registerWork("lines", "memchr", lines, rounds,
                            [=](State& state) { bench::memchrLines(state, lines); });
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
