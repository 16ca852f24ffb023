// What the library says while the program works.
#ifndef TOOLS_SHARED_MESSAGES_H
#define TOOLS_SHARED_MESSAGES_H

#include <cstdint>
#include <string>

namespace pool {

/// The program whose session it is; each defines its own.
extern const char* const kProgram;

/// Takes the library's messages as long as it lives: shows them on stderr, traces included, or
/// swallows them. Either way it remembers which event the server reported last.
class Messages {
  public:
    explicit Messages(bool shown);
    ~Messages();
    Messages(const Messages&) = delete;
    Messages& operator=(const Messages&) = delete;

    /// Forgets the event and its description: before a request.
    void forget();
    void noteEvent(uint32_t code) { event_ = code; }
    uint32_t event() const { return event_; }  ///< 0: none was heard of
    /// Why a file or memory for its contents was not to be had when something was read, else 0.
    uint32_t notRead() const { return notRead_; }
    /// What the server said, as a terminal may show it; empty when it said nothing.
    std::string description() const;

  private:
    static void hear(uint32_t level, uint32_t status, const char* text, void* self) noexcept;

    bool shown_;
    uint32_t event_ = 0;
    uint32_t notRead_ = 0;
};

}  // namespace pool

#endif
