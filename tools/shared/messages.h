// The library's messages: shown or swallowed, and remembered as far as exit codes depend on them.
//
// Thread rule: one thread. The library reports on the thread that called it, so that everything
// here runs on the program's only thread.
// Invariants:
//  1. The library has one sink. There is at most one Messages, and no other sink beside it.
//  2. event() is the last event since forget(), or 0: whoever forgets before each request knows
//     that the event belongs to that request.
//  3. reason() is that of the last request that failed since forget(), or empty.
//  4. hear() lets no exception out, since C code called it.
#ifndef TOOLS_SHARED_MESSAGES_H
#define TOOLS_SHARED_MESSAGES_H

#include <cstdint>
#include <functional>
#include <string>

namespace tool {

/// Whether a status is the transport's, which got no valid answer.
bool isTransport(uint32_t status);

class Messages {
  public:
    /// Takes the library's messages until it is destroyed. `shown`: they go to stderr, traces
    /// included.
    explicit Messages(bool shown);
    ~Messages();
    Messages(const Messages&) = delete;
    Messages& operator=(const Messages&) = delete;

    /// Does something before each message that is shown: no call that makes the library report.
    void beforeEach(std::function<void()> work) { beforeEach_ = std::move(work); }
    bool shown() const { return shown_; }

    /// Forgets the event, its description and the reason; to be called before each request.
    void forget();
    void noteEvent(uint32_t code) { event_ = code; }
    uint32_t event() const { return event_; }  ///< 0: no event since forget()
    /// The status with which reading a file failed, or 0.
    uint32_t notRead() const { return notRead_; }
    /// The server's description of the event, as a terminal may show it; empty when it sent none.
    std::string description() const;
    /// The transport's reason for a request that failed, as a terminal may show it.
    std::string reason() const;

  private:
    static void hear(uint32_t level, uint32_t status, const char* text, void* self) noexcept;

    bool shown_;
    uint32_t event_ = 0;
    uint32_t notRead_ = 0;
    std::string reason_;
    std::function<void()> beforeEach_;
};

}  // namespace tool

#endif
