#include "tests/support/raw_server.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "tests/support/loopback.h"

namespace {

/// Waits until there is something to read; false when the server stops meanwhile.
bool readable(int fd, const std::atomic<bool>& stopping) {
    while (!stopping) {
        pollfd wait{fd, POLLIN, 0};
        if (poll(&wait, 1, 20) > 0) return true;
    }
    return false;
}

/// Where a request or an answer with a known length ends, or npos as long as its head is not there.
size_t endOf(const std::string& message) {
    const size_t head = message.find("\r\n\r\n");
    if (head == std::string::npos) return head;
    const std::string length = headerOf(message, "Content-Length");
    return head + 4 + (length.empty() ? 0 : std::stoul(length));
}

bool isWhole(const std::string& message) {
    return message.size() >= endOf(message);
}

}  // namespace

std::string answer(const std::string& status, const std::string& type, const std::string& body) {
    return "HTTP/1.1 " + status + "\r\nContent-Type: " + type +
           "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string textAnswer(const std::string& body) {
    return answer("200 OK", "text/plain", body);
}

std::string headerOf(const std::string& request, const std::string& name) {
    const size_t at = request.find("\r\n" + name + ": ");
    if (at == std::string::npos) return {};
    const size_t start = at + name.size() + 4;
    return request.substr(start, request.find("\r\n", start) - start);
}

std::string Received::brief() const {
    const auto typed = [&](const char* type) {
        return headerOf(head, "Content-Type").starts_with(type);
    };
    std::string text = end == "kept" ? "" : end + " ";
    text += head.size() > 12 ? head.substr(9, 3) + " " : "";
    if (end == "kept" && typed("application/problem+json")) {
        const size_t at = body.find("\"eventCode\":");
        text += at == std::string::npos ? "event" : "event " + body.substr(at + 12);
        return text.substr(0, text.find_first_of(",}"));
    }
    if (end == "kept" && !typed("text/plain")) text += headerOf(head, "Content-Type") + " ";
    text += body;
    return text.substr(0, text.size() - (text.ends_with(' ') ? 1 : 0));
}

RawClient::RawClient(uint16_t port) : socket_(loopback::connectTo(port)) {}

RawClient::~RawClient() {
    close(socket_);
}

Received RawClient::ask(const std::string& bytes, int milliseconds) {
    for (size_t sent = 0; sent < bytes.size();) {
        const ssize_t count =
            ::send(socket_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count <= 0) break;
        sent += static_cast<size_t>(count);
    }
    Received received;
    for (std::string all;;) {
        const size_t split = all.find("\r\n\r\n");
        received.head = all.substr(0, split);
        received.body = split == std::string::npos ? "" : all.substr(split + 4);
        const bool chunked = received.head.find("chunked") != std::string::npos;
        const bool known = received.head.find("Content-Length: ") != std::string::npos;
        if ((known && isWhole(all)) || (chunked && received.body.ends_with("0\r\n\r\n"))) {
            received.end = "kept";
            return received;
        }
        pollfd ready{socket_, POLLIN, 0};
        char block[8192];
        const bool any = poll(&ready, 1, milliseconds) == 1;
        const ssize_t count = any ? recv(socket_, block, sizeof block, 0) : -1;
        if (count <= 0) {
            received.end = !any ? "silent" : count == 0 ? "closed" : "reset";
            return received;
        }
        all.append(block, static_cast<size_t>(count));
    }
}

std::string rawExchange(uint16_t port, const std::string& request) {
    const Received received = RawClient(port).ask(request);
    return received.head + "\r\n\r\n" + received.body;
}

RawServer::RawServer(Reply otherwise) : otherwise_(std::move(otherwise)) {
    listen();
}

RawServer::~RawServer() {
    refuse();
}

void RawServer::listen() {
    stopping_ = false;
    listener_ = loopback::listenOn(port_, 64);
    acceptor_ = std::thread([this] { acceptAll(); });
}

void RawServer::refuse() {
    stopping_ = true;
    if (acceptor_.joinable()) acceptor_.join();
    for (std::thread& worker : workers_)
        worker.join();
    workers_.clear();
    if (listener_ >= 0) close(listener_);
    listener_ = -1;
}

std::string RawServer::url() const {
    return "http://127.0.0.1:" + std::to_string(port_);
}

void RawServer::queue(const Reply& reply) {
    const std::lock_guard<std::mutex> hold(lock_);
    replies_.push_back(reply);
}

std::vector<std::string> RawServer::requests() {
    const std::lock_guard<std::mutex> hold(lock_);
    return requests_;
}

void RawServer::acceptAll() {
    while (readable(listener_, stopping_)) {
        const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        ++connections_;
        workers_.emplace_back([this, fd] { serve(fd); });
    }
}

bool RawServer::readRequest(int fd, std::string& pending, std::string& request) {
    for (;;) {
        if (isWhole(pending)) {
            const size_t size = endOf(pending);
            request = pending.substr(0, size);
            pending.erase(0, size);
            return true;
        }
        static thread_local char block[1 << 20];
        if (!readable(fd, stopping_)) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs_));
        const ssize_t got = recv(fd, block, pauseMs_ > 0 ? size_t{64} << 10 : sizeof block, 0);
        if (got <= 0) return false;
        pending.append(block, static_cast<size_t>(got));
    }
}

/// Whether the connection goes on.
bool RawServer::send(int fd, const Reply& reply) {
    for (int waited = 0; waited < reply.delayMs && !stopping_; waited += 10)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    std::string block = reply.bytes;
    for (size_t left = reply.padding;;) {
        size_t sent = 0;
        while (sent < block.size()) {
            const size_t most = std::min(block.size() - sent, reply.atOnce);
            const ssize_t now = ::send(fd, block.data() + sent, most, MSG_NOSIGNAL);
            if (now <= 0) return false;
            if (reply.atOnce < SIZE_MAX) std::this_thread::sleep_for(std::chrono::milliseconds(1));
            sent += static_cast<size_t>(now);
        }
        if (left == 0) break;
        block.assign(std::min<size_t>(left, 65536), 'x');
        left -= block.size();
    }
    if (reply.end == Reply::Resets) {
        // What was sent is to arrive before the reset.
        if (!reply.bytes.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(50));
        const linger now{1, 0};
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    }
    if (reply.end == Reply::Vanishes) shutdown(listener_, SHUT_RDWR);
    return reply.end == Reply::KeepsOpen;
}

void RawServer::serve(int fd) {
    std::string pending, request;
    for (bool open = true; open && readRequest(fd, pending, request);) {
        Reply reply = otherwise_;
        {
            const std::lock_guard<std::mutex> hold(lock_);
            requests_.push_back(request);
            if (!replies_.empty()) {
                reply = replies_.front();
                replies_.pop_front();
            }
        }
        open = send(fd, reply);
    }
    close(fd);
}
