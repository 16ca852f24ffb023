#include "tests/sandbox/sandbox_client.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <sstream>
#include <vector>

#include "tests/support/loopback.h"

std::string Reply::brief() const {
    static const std::map<std::string, std::string> kStatuses = {
        {"1001", "401"}, {"1002", "403"}, {"1003", "400"}, {"2001", "404"},
        {"2002", "409"}, {"2003", "409"}, {"2004", "409"}, {"2005", "409"},
        {"2006", "409"}, {"2007", "400"}, {"9001", "500"},
    };
    if (end == "kept" && head.find("Content-Type: text/plain") != std::string::npos)
        return status() + " " + body;
    const size_t at = body.find("\"eventCode\":");
    const std::string code = at == std::string::npos ? "" : body.substr(at + 12, 4);
    const auto row = kStatuses.find(code);
    const bool fits = row != kStatuses.end() && row->second == status() && end == "kept" &&
                      head.find("application/problem+json") != std::string::npos;
    return fits ? "event " + code : "?? " + end + " " + head + body;
}

Client::Client(uint16_t port) : socket_(loopback::connectTo(port)) {}

Client::~Client() {
    close(socket_);
}

void Client::send(const std::string& bytes) {
    for (size_t sent = 0; sent < bytes.size();) {
        const ssize_t count =
            ::send(socket_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        ASSERT_GT(count, 0);
        sent += static_cast<size_t>(count);
    }
}

Reply Client::receive(int milliseconds) {
    Reply reply;
    std::string bytes;
    for (;;) {
        const size_t split = bytes.find("\r\n\r\n");
        reply.head = bytes.substr(0, split);
        reply.body = split == std::string::npos ? "" : bytes.substr(split + 4);
        const size_t length = reply.head.find("Content-Length: ");
        if (split != std::string::npos && length != std::string::npos &&
            reply.body.size() >= std::stoull(reply.head.substr(length + 16))) {
            reply.end = "kept";
            return reply;
        }
        if (reply.body.ends_with("0\r\n\r\n") && reply.head.find("chunked") != std::string::npos) {
            reply.end = "kept";
            return reply;
        }
        pollfd ready = {socket_, POLLIN, 0};
        std::vector<char> block(65536);
        const bool any = poll(&ready, 1, milliseconds) == 1;
        const ssize_t count = any ? recv(socket_, block.data(), block.size(), 0) : -1;
        if (count <= 0) {
            reply.end = !any ? "silent" : count == 0 ? "closed" : "reset";
            return reply;
        }
        bytes.append(block.data(), static_cast<size_t>(count));
    }
}

std::string newId() {
    static uint64_t number = 0;
    const std::string digits = std::to_string(++number);
    return std::string(32 - digits.size(), '0') + digits;
}

std::string encoded(const std::string& form) {
    std::istringstream words(form);
    std::string text;
    for (std::string word; words >> word;) {
        text += text.empty() ? "action=" : "&";
        const size_t value = text == "action=" ? 0 : word.find('=') + 1;
        text += word.substr(0, value);
        for (const char c : word.substr(value)) {
            char code[4];
            snprintf(code, sizeof code, "%%%02X", static_cast<unsigned char>(c));
            text += isalnum(static_cast<unsigned char>(c)) != 0 ? std::string(1, c) : code;
        }
    }
    return text;
}

std::string basic(const std::string& credentials) {
    std::string text(credentials.size() * 2 + 8, '\0');
    const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                                       reinterpret_cast<const unsigned char*>(credentials.data()),
                                       static_cast<int>(credentials.size()));
    return "Authorization: Basic " + text.substr(0, static_cast<size_t>(length)) + "\r\n";
}

std::string request(const std::string& target, const std::string& headers,
                    const std::string& body) {
    return target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + headers +
           "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string request(const Call& call) {
    return request("POST /ws/" + call.service,
                   (call.login.empty() ? "" : basic(call.login)) +
                       "Request-Id: " + (call.id.empty() ? newId() : call.id) +
                       "\r\nContent-Type: application/x-www-form-urlencoded\r\n",
                   encoded(call.form));
}
