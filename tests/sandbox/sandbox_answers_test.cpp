// Replays answers/*.txt to a development server in this process; answers/README has the format.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <list>
#include <optional>
#include <sstream>

#include "sandbox/store/database.h"
#include "tests/support/folder.h"
#include "tests/support/raw_server.h"
#include "tests/support/served_pool.h"

namespace {

namespace fs = std::filesystem;

std::string basic(const std::string& credentials) {
    std::string text(credentials.size() * 2 + 8, '\0');
    const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                                       reinterpret_cast<const unsigned char*>(credentials.data()),
                                       static_cast<int>(credentials.size()));
    return "Authorization: Basic " + text.substr(0, static_cast<size_t>(length)) + "\r\n";
}

std::string unescaped(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        const char next = text[i] == '\\' && i + 1 < text.size() ? text[++i] : '\0';
        if (next == 'x') {
            out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            out += next == 'n' ? '\n' : next == 'r' ? '\r' : next == 's' ? ' ' : text[i];
        }
    }
    return out;
}

/// Takes the text up to a separator away, and the separator.
std::string take(std::string& text, const std::string& separator = " ") {
    const size_t end = std::min(text.find(separator), text.size());
    const std::string taken = text.substr(0, end);
    text.erase(0, end + separator.size());
    return taken;
}

/// The values of a form are encoded.
std::string encoded(std::string form) {
    std::string text = "action=" + take(form);
    while (!form.empty()) {
        std::string value = take(form);
        text += "&" + take(value, "=") + "=";
        for (const char c : unescaped(value)) {
            char code[4];
            snprintf(code, sizeof code, "%%%02X", static_cast<unsigned char>(c));
            text += isalnum(static_cast<unsigned char>(c)) != 0 ? std::string(1, c) : code;
        }
    }
    return text;
}

constexpr char kForm[] = "Request-Id: {id}\r\nContent-Type: application/x-www-form-urlencoded\r\n";

class Answers : public testing::TestWithParam<fs::path> {
  protected:
    void SetUp() override {
        settings_.accounts = {{"all", "secret", {"read", "write", "delete"}},
                              {"writer", "w", {"read", "write"}},
                              {"reader", "see:all", {"read"}},
                              {"none", "n", {}}};
        settings_.bodyLimit = 500;
        restart();
    }

    void restart() {
        client_.reset();
        const auto start = std::chrono::steady_clock::now();
        server_.reset();
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
        server_ = servedPool(settings_, "1000");
    }

    std::string message(const std::string& head, const std::string& headers,
                        const std::string& body, std::string id) {
        if (id.empty()) id = std::to_string(++ids_);
        std::string text = head + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + headers +
                           (login_.empty() ? "" : basic(login_)) +
                           "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
        const size_t at = text.find("{id}");
        return at == std::string::npos ? text
                                       : text.replace(at, 4, std::string(32 - id.size(), '0') + id);
    }

    Received ask(const std::string& bytes) {
        if (leaves_) return left_.emplace_back(server_->port()).ask(bytes, 600);
        if (!client_) client_.emplace(server_->port());
        Received received = client_->ask(bytes);
        if (received.end != "kept" || headerOf(received.head, "Connection") == "close")
            client_.reset();
        return received;
    }

    Received perform(std::string request) {
        const std::string id = request[0] == '#' ? "f" + take(request).substr(1) : "";
        std::string rest = request;
        const std::string first = take(rest);
        if (first == "admin") {
            const std::string method = take(rest), function = take(rest);
            return {"kept", "", server_->admin(method, function, rest)};
        }
        if (first == "late") return left_.back().ask({});
        if (first == "bytes") return ask(unescaped(rest));
        if (first != "GET" && first != "POST")
            return ask(message("POST /ws/" + service_, kForm, encoded(request), id));
        const std::string target = take(rest);
        return ask(message(first + " " + target, head_, unescaped(rest), id));
    }

    void expect(std::string line) {
        const uint64_t times = line.starts_with("repeat ") ? take(line),
                       std::stoull(take(line))             : 1;
        leaves_ = line.starts_with("leave ") && !take(line).empty();
        const std::string request = take(line, " -> ");
        Received received;
        for (uint64_t i = 0; i < times; ++i)
            received = perform(request);
        const std::string whole = received.head + "\r\n\r\n" + received.body;
        const std::string answer = unescaped(take(line, " ~ "));
        EXPECT_EQ(answer == "*" ? answer : received.brief(), answer) << whole;
        while (!line.empty()) {
            std::string text = unescaped(take(line, " ~ "));
            const bool without = text[0] == '!';
            if (without) text.erase(0, 1);
            EXPECT_EQ(whole.find(text) == std::string::npos, without) << text << " in " << whole;
        }
    }

    void play(std::string line) {
        if (line.find(" -> ") != std::string::npos) return expect(line);
        const std::string command = take(line);
        if (command == "login") {
            login_ = line;
        } else if (command == "service") {
            service_ = line;
        } else if (command == "head") {
            for (head_.clear(); !line.empty();)
                head_ += take(line, "; ") + "\r\n";
        } else if (command == "fault") {
            expect("admin POST faults [" + line + "] -> * ~ \"taken\"");
        } else if (command == "restart") {
            settings_.database = file_.path + "/pool.db";
            restart();
        } else if (command == "account") {
            settings_.accounts.push_back({take(line, ":"), take(line), {}});
            while (!line.empty())
                settings_.accounts.back().permissions.push_back(take(line));
        } else if (command == "sql") {
            sandbox::Database(settings_.database).script(line.c_str());
        } else {
            ADD_FAILURE() << command;
        }
    }

    sandbox::Settings settings_;
    std::unique_ptr<sandbox::Server> server_;
    std::optional<RawClient> client_;
    std::list<RawClient> left_;
    bool leaves_ = false;
    Folder file_;
    std::string login_ = "all:secret", service_ = "metabase",
                head_ = "Request-Id: {id}\r\nContent-Type: text/plain\r\n";
    uint64_t ids_ = 0;
};

TEST_P(Answers, AsWritten) {
    std::ifstream file(GetParam());
    int number = 0;
    for (std::string line; std::getline(file, line);) {
        ++number;
        SCOPED_TRACE(GetParam().filename().string() + ":" + std::to_string(number) + ": " + line);
        if (!line.empty() && line[0] != '/') play(line);
    }
    EXPECT_GT(number, 3);
}

std::vector<fs::path> files() {
    std::vector<fs::path> found;
    for (const auto& entry : fs::directory_iterator(SANDBOX_ANSWERS)) {
        if (entry.path().extension() == ".txt") found.push_back(entry.path());
    }
    return found;
}

INSTANTIATE_TEST_SUITE_P(Of, Answers, testing::ValuesIn(files()),
                         [](const auto& given) { return given.param.stem().string(); });

}  // namespace
