// Open files.
#ifndef TOOLS_SHARED_DESCRIPTOR_H
#define TOOLS_SHARED_DESCRIPTOR_H

#include <unistd.h>

namespace tool {

/// A descriptor that is closed at the end; negative when there is none.
class Descriptor {
  public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return fd_; }

  private:
    int fd_;
};

}  // namespace tool

#endif
