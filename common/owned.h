// Owners of C resources: texts from malloc, and file descriptors. This header depends only on the
// standard library and unistd.h, so that programs and stand-ins may include it as well.
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

/// An owned file descriptor, closed by the destructor; negative when there is none. Closing leaves
/// errno unchanged, since the caller may still have to report an earlier error.
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

    /// Gives up ownership: the caller closes the descriptor.
    int release() noexcept { return std::exchange(fd_, -1); }

    /// Closes the descriptor. Errors are not reported: where a failed close() may mean lost data,
    /// call close() directly.
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
