// Two peers that speak whatever bytes a test puts into their mouths: a server and a client.
#ifndef TESTS_RAW_SERVER_H
#define TESTS_RAW_SERVER_H

#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/// What the server does once a request has arrived.
struct Reply {
    enum End { KeepsOpen, Closes, Resets, Vanishes };  ///< at last: refuses connections as well
    std::string bytes;
    End end = KeepsOpen;
    int delayMs = 0;           ///< before the answer
    size_t padding = 0;        ///< so many more bytes "x" after `bytes`
    size_t atOnce = SIZE_MAX;  ///< bytes that are sent at once, with a pause between
};

/// "HTTP/1.1 STATUS" with a content type, a length and a body.
std::string answer(const std::string& status, const std::string& type, const std::string& body);
std::string textAnswer(const std::string& body);

/// Serves on a free port of the loopback interface until it goes. Each request takes the next reply
/// of the queue; when that is empty, `otherwise`.
class RawServer {
  public:
    explicit RawServer(Reply otherwise = {textAnswer("ok"), Reply::KeepsOpen, 0, 0});
    ~RawServer();
    RawServer(const RawServer&) = delete;
    RawServer& operator=(const RawServer&) = delete;

    void queue(const Reply& reply);
    std::string url() const;
    /// The requests so far, each as it stood on the wire.
    std::vector<std::string> requests();
    size_t connections() const { return connections_; }
    /// Stops listening: connections are refused until listen() is called again.
    void refuse();
    void listen();
    /// Reads 64 KiB at a time from now on, after a pause.
    void readSlowly(int pauseMs) { pauseMs_ = pauseMs; }

  private:
    void acceptAll();
    void serve(int fd);
    bool readRequest(int fd, std::string& pending, std::string& request);
    bool send(int fd, const Reply& reply);

    Reply otherwise_;
    uint16_t port_ = 0;
    int listener_ = -1;
    std::atomic<bool> stopping_ = false;
    std::atomic<int> pauseMs_ = 0;
    std::atomic<size_t> connections_ = 0;
    std::mutex lock_;
    std::deque<Reply> replies_;
    std::vector<std::string> requests_;
    std::vector<std::thread> workers_;
    std::thread acceptor_;
};

/// An answer, as far as it came.
struct Received {
    std::string end;  ///< "kept" (complete), "closed", "reset", "silent" (nothing more in time)
    std::string head;
    std::string body;

    /// On one line: END (unless kept), STATUS, the content type (unless text/plain) and BODY, or
    /// "STATUS event CODE" for a problem document.
    std::string brief() const;
};

/// One connection to a server on the loopback interface, whose every byte is seen.
class RawClient {
  public:
    explicit RawClient(uint16_t port);
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;
    ~RawClient();

    /// Sends some bytes, and waits for an answer as long as it goes on coming.
    Received ask(const std::string& bytes, int milliseconds = 5000);

  private:
    int socket_;
};

/// A request on a connection of its own, and the answer as it stands on the wire.
std::string rawExchange(uint16_t port, const std::string& request);

/// The value of a header of a request or an answer, empty without that header.
std::string headerOf(const std::string& request, const std::string& name);

#endif
