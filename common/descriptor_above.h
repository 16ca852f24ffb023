// Descriptors 0 to 2 are standard input, output and error, also in a process that has closed them:
// whatever gets one of these numbers gets the bytes of the next message or print.
#ifndef COMMON_DESCRIPTOR_ABOVE_H
#define COMMON_DESCRIPTOR_ABOVE_H

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace kspool {

/// `fd`, or a duplicate of it at 3 or above, with `fd` closed. -1 with errno set when it cannot be
/// duplicated, and with errno as it was for a negative `fd`.
inline int aboveStandard(int fd) noexcept {
    if (fd < 0 || fd > STDERR_FILENO) return fd;
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int kept = errno;
    close(fd);
    errno = kept;
    return moved;
}

}  // namespace kspool

#endif
