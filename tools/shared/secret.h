// The password: where it comes from, and that it does not stay.
#ifndef TOOLS_SHARED_SECRET_H
#define TOOLS_SHARED_SECRET_H

#include <array>
#include <cstddef>
#include <string>

namespace pool {

/// A password. It has one place in memory, which is wiped.
class Secret {
  public:
    static constexpr size_t kLongest = 255;  ///< characters that KS_OPT_PASSWORD takes

    Secret() = default;
    ~Secret();
    Secret(const Secret&) = delete;
    Secret& operator=(const Secret&) = delete;

    bool empty() const { return length_ == 0; }
    const char* text() const { return text_.data(); }
    /// False when it is as long as may be.
    bool append(char character);
    void dropLast();
    char last() const { return length_ > 0 ? text_[length_ - 1] : '\0'; }

  private:
    std::array<char, kLongest + 1> text_{};
    size_t length_ = 0;
};

/// Reads the password from the first line of a file ("-": standard input), or without one from
/// $KSPOOL_PASSWORD, which is wiped and unset in any case. Returns what is wrong, else an empty
/// text; no password at all is not wrong.
std::string takePassword(const std::string& file, Secret& secret);

}  // namespace pool

#endif
