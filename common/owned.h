// Owners of what C hands out: texts from malloc, and file descriptors. This header depends on the
// standard library and unistd.h alone, so that programs and stand-ins may include it as well.
#ifndef COMMON_OWNED_H
#define COMMON_OWNED_H

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <utility>

namespace kspool {

/// Frees a text that malloc, or a function of the library, allocated.
struct FreeText {
    void operator()(char* text) const noexcept { free(text); }
};
using OwnedText = std::unique_ptr<char, FreeText>;

/// An owned file descriptor, closed at the end; negative when there is none. Closing leaves errno
/// as it was, for the caller may still have to report the error that ended its work.
class Descriptor {
  public:
    explicit Descriptor(int fd) noexcept : fd_(fd) {}
    Descriptor(Descriptor&& other) noexcept : fd_(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        close();
        fd_ = other.release();
        return *this;
    }
    ~Descriptor() { close(); }

    int get() const noexcept { return fd_; }

    /// Gives the descriptor away: the caller closes it.
    int release() noexcept { return std::exchange(fd_, -1); }

    /// Closes it now. An error is not reported: a file whose last write matters needs its own
    /// close().
    void close() noexcept {
        if (fd_ < 0) return;
        const int kept = errno;
        ::close(release());
        errno = kept;
    }

  private:
    int fd_;
};

}  // namespace kspool

#endif
