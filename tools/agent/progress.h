// A progress bar on stderr that gets out of the way of messages.
#ifndef TOOLS_AGENT_PROGRESS_H
#define TOOLS_AGENT_PROGRESS_H

#include <chrono>
#include <cstdint>
#include <string>

namespace agent {

/// Draws only when stderr is a terminal. While it lives, the library's messages may come through
/// it, so that they do not land inside the bar.
class Progress {
  public:
    /// `takesMessages`: unless somebody else listens to the library.
    explicit Progress(uint64_t totalBytes, bool takesMessages = true);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// Moves the bar; drawn a few times a second at most.
    void advance(uint64_t bytes);

    /// Writes a line on stderr.
    void message(const std::string& line);

    /// Takes the bar away until it is drawn again.
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
