// The library's messages: shown or suppressed, and remembered as far as exit codes depend on them.
//
// Thread rule: one thread. The library reports on the thread that called it, so everything here
// runs on the program's only thread.
// Invariants:
//  1. The library has one sink, so there is at most one Messages and no other sink.
//  2. event() is the last event since forget(), or 0. A caller that calls forget() before each
//     request knows that the event belongs to that request.
//  3. reason() is that of the last request that failed since forget(), or empty.
//  4. hear() throws nothing, since C code calls it.
#ifndef TOOLS_SHARED_MESSAGES_H
#define TOOLS_SHARED_MESSAGES_H

#include <cstdint>
#include <functional>
#include <string>

namespace tool {

/// Whether a status is the transport's: there was no valid answer.
bool isTransport(uint32_t status);

class Messages {
  public:
    /// Takes the library's messages until it is destroyed. `shown`: they go to stderr, traces
    /// included.
    explicit Messages(bool shown);
    ~Messages();
    Messages(const Messages&) = delete;
    Messages& operator=(const Messages&) = delete;

    /// Sets what is done before each message is shown. It must not call what may write messages.
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
