#include "tools/agent/progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string_view>

#include "common/ascii.h"
#include "platform/support.h"
#include "tools/shared/failure.h"
#include "tools/shared/text.h"

namespace agent {
namespace {

constexpr size_t kBarWidth = 30;
constexpr std::chrono::milliseconds kRedraw{100};

}  // namespace

Progress::Progress(uint64_t totalBytes, bool takesMessages)
    : total_(totalBytes),
      takesMessages_(takesMessages),
      terminal_(isatty(STDERR_FILENO) != 0),
      start_(Clock::now()),
      nextDraw_(start_ + kRedraw) {
    if (takesMessages_) qlxSetSink(receive, this);
}

Progress::~Progress() {
    if (takesMessages_) qlxSetSink(nullptr, nullptr);
    clear();
}

void Progress::advance(uint64_t bytes) {
    done_ += bytes;
    if (!terminal_) return;
    const Clock::time_point now = Clock::now();
    if (now < nextDraw_) return;
    nextDraw_ = now + kRedraw;
    draw(now);
}

void Progress::complain(const std::string& text) {
    clear();
    tool::complain(text);
}

void Progress::receive(uint32_t level, uint32_t status, const char* text, void* progress) {
    // No allocation: the library may be reporting that memory has run out.
    static_cast<Progress*>(progress)->clear();
    fprintf(stderr, "%s: ", OSGetProcName(0));
    if (level != QLX_LEVEL_TRACE) fprintf(stderr, "status %u: ", status);
    kspool::visible(text,
                    [](std::string_view piece) { fwrite(piece.data(), 1, piece.size(), stderr); });
    fputc('\n', stderr);
}

void Progress::draw(Clock::time_point now) {
    // Files may have grown since they were counted.
    const double share =
        total_ > 0 ? std::min(1.0, static_cast<double>(done_) / static_cast<double>(total_)) : 1.0;
    const double seconds = std::chrono::duration<double>(now - start_).count();
    const auto full = static_cast<size_t>(share * static_cast<double>(kBarWidth));
    const std::string bar = std::string(full, '#') + std::string(kBarWidth - full, '.');
    fprintf(stderr, "\r\033[K[%s] %3.0f %%  %s of %s, %s/s", bar.c_str(), share * 100,
            tool::humanBytes(static_cast<double>(done_)).c_str(),
            tool::humanBytes(static_cast<double>(total_)).c_str(),
            tool::humanBytes(static_cast<double>(done_) / seconds).c_str());
    drawn_ = true;
}

void Progress::clear() {
    if (drawn_) fputs("\r\033[K", stderr);
    drawn_ = false;
}

}  // namespace agent
