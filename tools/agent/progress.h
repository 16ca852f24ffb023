// A progress line on stderr, which is erased before each message.
//
// Thread rule: one thread, which also makes all calls of the library that may write messages.
// Invariants:
//  1. drawn_ tells whether the line is on the terminal. Anything that writes to stderr clears the
//     line first; otherwise the text would be appended to the line.
//  2. Nothing is drawn unless stderr is a terminal that can erase a line, so that redirected
//     messages contain no progress.
//  3. The line is shorter than the terminal is wide, since a wrapped line cannot be erased.
#ifndef TOOLS_AGENT_PROGRESS_H
#define TOOLS_AGENT_PROGRESS_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace agent {

class Progress {
  public:
    /// `totalBytes`: begin() is called with it. `takesMessages`: installs a sink for the library's
    /// messages. The library has only one sink, so a program with a Session, which installs its
    /// own, passes false.
    explicit Progress(std::optional<uint64_t> totalBytes = {}, bool takesMessages = true);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// Shows how many files were found so far.
    void count(uint64_t files, uint64_t bytes);

    /// Sets the total of the bytes that advance() will report. Until then the total is unknown, and
    /// neither share nor time left is shown.
    void begin(uint64_t totalBytes);

    /// Adds bytes; redraws the line at most a few times per second.
    void advance(uint64_t bytes);

    /// tool::complain(), with the line cleared before.
    void complain(const std::string& text);

    /// Removes the line until it is drawn again.
    void clear();

  private:
    using Clock = std::chrono::steady_clock;

    static void receive(uint32_t level, uint32_t status, const char* text, void* progress);
    bool isDue();
    std::string line(size_t width) const;
    void draw(const std::string& text);

    std::optional<uint64_t> total_;
    uint64_t done_ = 0;
    bool takesMessages_;
    bool terminal_;
    bool drawn_ = false;
    Clock::time_point start_;
    Clock::time_point nextDraw_;
};

}  // namespace agent

#endif
