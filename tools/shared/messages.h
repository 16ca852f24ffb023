// The library's messages: shown or swallowed, and remembered as far as exit codes depend on them.
//
// Thread rule: one thread. The library reports on the thread that called it, so that everything
// here runs on the program's only thread.
// Invariants:
//  1. The library has one sink. There is at most one Messages, and no other sink beside it.
//  2. event() is the last event since forget(), or 0: whoever forgets before each request knows
//     that the event belongs to that request.
//  3. hear() lets no exception out, since C code called it.
#ifndef TOOLS_SHARED_MESSAGES_H
#define TOOLS_SHARED_MESSAGES_H

#include <cstdint>
#include <string>

namespace tool {

class Messages {
  public:
    /// Takes the library's messages until it is destroyed. `shown`: they go to stderr, traces
    /// included.
    explicit Messages(bool shown);
    ~Messages();
    Messages(const Messages&) = delete;
    Messages& operator=(const Messages&) = delete;

    /// Forgets the event and its description; to be called before each request.
    void forget();
    void noteEvent(uint32_t code) { event_ = code; }
    uint32_t event() const { return event_; }  ///< 0: no event since forget()
    /// The status with which reading a file failed, or 0.
    uint32_t notRead() const { return notRead_; }
    /// The server's description of the event, as a terminal may show it; empty when it sent none.
    std::string description() const;

  private:
    static void hear(uint32_t level, uint32_t status, const char* text, void* self) noexcept;

    bool shown_;
    uint32_t event_ = 0;
    uint32_t notRead_ = 0;
};

}  // namespace tool

#endif
