// Wiping of memory that holds a password: otherwise freed or reused memory would still contain it,
// for example in a core dump. This header depends only on the standard library, so that programs
// and stand-ins may include it as well.
#ifndef COMMON_SECRET_H
#define COMMON_SECRET_H

#include <array>
#include <cstddef>
#include <cstring>
#include <string_view>
#include <type_traits>

namespace kspool {

/// Overwrites a record at the end of the scope. explicit_bzero(), since a compiler may drop
/// memset() of memory that nobody reads again.
template <typename Record>
class ScopedWipe {
    static_assert(std::is_trivially_copyable_v<Record>);

  public:
    explicit ScopedWipe(Record& record) noexcept : record_(record) {}
    ~ScopedWipe() { explicit_bzero(&record_, sizeof record_); }
    ScopedWipe(const ScopedWipe&) = delete;
    ScopedWipe& operator=(const ScopedWipe&) = delete;

  private:
    Record& record_;
};

/// A text of up to `longest` characters, stored only in the object itself, which the destructor
/// wipes. std::string would leave copies: in the block that it frees when it grows, and on the
/// stack when a short text is moved.
template <size_t longest>
class SecretText {
  public:
    SecretText() = default;
    SecretText(const SecretText&) = default;
    SecretText& operator=(const SecretText&) = default;  ///< overwrites all of the former text
    ~SecretText() { wipe(); }

    /// Replaces the text. False, with the former text unchanged, if the new one is too long.
    bool set(std::string_view text) noexcept {
        if (text.size() > longest) return false;
        wipe();
        memcpy(text_.data(), text.data(), text.size());
        length_ = text.size();
        return true;
    }
    /// False when there is no room.
    bool append(char character) noexcept {
        if (length_ == longest) return false;
        text_[length_++] = character;
        return true;
    }
    void dropLast() noexcept { text_[--length_] = '\0'; }

    bool empty() const noexcept { return length_ == 0; }
    char last() const noexcept { return length_ > 0 ? text_[length_ - 1] : '\0'; }
    const char* text() const noexcept { return text_.data(); }
    std::string_view view() const noexcept { return {text_.data(), length_}; }

  private:
    void wipe() noexcept {
        explicit_bzero(text_.data(), text_.size());
        length_ = 0;
    }

    std::array<char, longest + 1> text_{};
    size_t length_ = 0;
};

}  // namespace kspool

#endif
