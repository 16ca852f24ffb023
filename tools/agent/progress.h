// A progress bar on stderr, which makes room for messages.
//
// Thread rule: one thread, which also makes the calls that the library reports on.
// Invariants:
//  1. drawn_ tells whether the bar is on the terminal's line. Whoever writes to stderr clears it
//     first; otherwise the text would land inside the bar.
//  2. Nothing is drawn unless stderr is a terminal: a file of messages has no bars in it.
#ifndef TOOLS_AGENT_PROGRESS_H
#define TOOLS_AGENT_PROGRESS_H

#include <chrono>
#include <cstdint>
#include <string>

namespace agent {

class Progress {
  public:
    /// `takesMessages`: the library's messages come through here. The library has one sink, so a
    /// program that has a Session, which takes them, passes false.
    explicit Progress(uint64_t totalBytes, bool takesMessages = true);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// Moves the bar; drawn a few times a second at most.
    void advance(uint64_t bytes);

    /// tool::complain(), beside the bar.
    void complain(const std::string& text);

    /// Removes the bar until advance() draws it again.
    void clear();

  private:
    using Clock = std::chrono::steady_clock;

    static void receive(uint32_t level, uint32_t status, const char* text, void* progress);
    void draw(Clock::time_point now);

    uint64_t total_;
    uint64_t done_ = 0;
    bool takesMessages_;
    bool terminal_;
    bool drawn_ = false;
    Clock::time_point start_;
    Clock::time_point nextDraw_;
};

}  // namespace agent

#endif
