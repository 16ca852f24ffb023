// A progress line on stderr, which makes room for messages.
//
// Thread rule: one thread, which also makes the calls that the library reports on.
// Invariants:
//  1. drawn_ tells whether the line is on the terminal. Whoever writes to stderr clears it first;
//     otherwise the text would land inside the line.
//  2. Nothing is drawn unless stderr is a terminal that can erase a line: a file of messages has no
//     progress in it.
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
    /// `totalBytes`: begin() is called with it. `takesMessages`: the library's messages come
    /// through here. The library has one sink, so a program that has a Session, which takes them,
    /// passes false.
    explicit Progress(std::optional<uint64_t> totalBytes = {}, bool takesMessages = true);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// Shows how many files were found so far.
    void count(uint64_t files, uint64_t bytes);

    /// Begins with the bytes that advance() will be told of. Before, and without, the amount that
    /// is left is not known, and no share of it is shown.
    void begin(uint64_t totalBytes);

    /// Moves the bar; drawn a few times a second at most.
    void advance(uint64_t bytes);

    /// tool::complain(), beside the line.
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
