#include "tools/agent/progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "common/ascii.h"
#include "platform/support.h"
#include "tools/shared/failure.h"
#include "tools/shared/text.h"

namespace agent {
namespace {

constexpr size_t kWidestBar = 30;
constexpr size_t kNarrowestBar = 10;
constexpr size_t kUsualWidth = 80;
constexpr std::chrono::milliseconds kRedraw{100};

bool canErase() {
    const char* terminal = getenv("TERM");
    return isatty(STDERR_FILENO) != 0 && terminal != nullptr && *terminal != '\0' &&
           std::string_view(terminal) != "dumb";
}

/// Queried for each line, since the window may be resized.
size_t terminalWidth() {
    winsize size{};
    const bool known = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return known ? size.ws_col : kUsualWidth;
}

/// "0:42", "3:05:00".
std::string clockTime(double seconds) {
    const auto whole = static_cast<unsigned long long>(std::min(seconds, 1e9));
    std::array<char, 32> text{};
    if (whole >= 3600) {
        snprintf(text.data(), text.size(), "%llu:%02llu:%02llu", whole / 3600, whole / 60 % 60,
                 whole % 60);
    } else {
        snprintf(text.data(), text.size(), "%llu:%02llu", whole / 60, whole % 60);
    }
    return text.data();
}

}  // namespace

Progress::Progress(std::optional<uint64_t> totalBytes, bool takesMessages)
    : total_(totalBytes),
      takesMessages_(takesMessages),
      terminal_(canErase()),
      start_(Clock::now()),
      nextDraw_(start_ + kRedraw) {
    if (takesMessages_) qlxSetSink(receive, this);
}

Progress::~Progress() {
    if (takesMessages_) qlxSetSink(nullptr, nullptr);
    clear();
}

void Progress::count(uint64_t files, uint64_t bytes) {
    if (!isDue()) return;
    draw("Counting: " + tool::counted(files, "file", "files") + ", " + tool::humanBytes(bytes));
}

void Progress::begin(uint64_t totalBytes) {
    clear();
    total_ = totalBytes;
    start_ = Clock::now();
}

void Progress::advance(uint64_t bytes) {
    done_ += bytes;
    if (isDue()) draw(line(terminalWidth() - 1));
}

void Progress::complain(const std::string& text) {
    clear();
    tool::complain(text);
}

void Progress::receive(uint32_t level, uint32_t status, const char* text, void* progress) {
    // Must not allocate: the library may be reporting that memory has run out.
    static_cast<Progress*>(progress)->clear();
    fprintf(stderr, "%s: ", OSGetProcName(0));
    if (level != QLX_LEVEL_TRACE) fprintf(stderr, "status %u: ", status);
    kspool::visible(text,
                    [](std::string_view piece) { fwrite(piece.data(), 1, piece.size(), stderr); });
    fputc('\n', stderr);
}

bool Progress::isDue() {
    if (!terminal_) return false;
    const Clock::time_point now = Clock::now();
    if (now < nextDraw_) return false;
    nextDraw_ = now + kRedraw;
    return true;
}

/// The line as far as it fits: amounts, rate and time left, then a bar in the remaining width.
std::string Progress::line(size_t width) const {
    const auto done = static_cast<double>(done_);
    const double seconds = std::chrono::duration<double>(Clock::now() - start_).count();
    const double rate = seconds > 0 ? done / seconds : 0;
    const std::string speed = ", " + tool::humanBytes(static_cast<uint64_t>(rate)) + "/s";
    if (!total_) return tool::humanBytes(done_) + speed;

    // Files may have grown since they were counted.
    const uint64_t most = std::max(*total_, done_);
    const auto total = static_cast<double>(most);
    const double share = total > 0 ? done / total : 1;
    std::array<char, 16> percent{};
    snprintf(percent.data(), percent.size(), "%3.0f %%", share * 100);
    std::string text = percent.data();
    const std::array<std::string, 3> parts = {
        "  " + tool::humanBytes(done_) + " of " + tool::humanBytes(most), speed,
        rate > 0 ? ", " + clockTime((total - done) / rate) + " left" : ""};
    for (const std::string& part : parts) {
        if (text.size() + part.size() > width) return text;
        text += part;
    }
    if (text.size() + kNarrowestBar + 3 > width) return text;
    const size_t bar = std::min(kWidestBar, width - text.size() - 3);
    const auto full = static_cast<size_t>(share * static_cast<double>(bar));
    return '[' + std::string(full, '#') + std::string(bar - full, '.') + "] " + text;
}

void Progress::draw(const std::string& text) {
    fprintf(stderr, "\r\033[K%s", text.substr(0, terminalWidth() - 1).c_str());
    drawn_ = true;
}

void Progress::clear() {
    if (drawn_) fputs("\r\033[K", stderr);
    drawn_ = false;
}

}  // namespace agent
