#include "sandbox/setup/files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "common/owned.h"

namespace sandbox {
namespace {

[[noreturn]] void fail(const std::string& path, int reason) {
    throw std::runtime_error(path + ": " + strerror(reason));
}

/// Writes and closes; 0 or errno.
int writeAll(kspool::Descriptor file, const std::string& text) {
    if (file.get() < 0) return errno;
    const ssize_t written = write(file.get(), text.data(), text.size());
    if (written < 0) return errno;
    if (static_cast<size_t>(written) < text.size()) return ENOSPC;
    return close(file.release()) == 0 ? 0 : errno;
}

}  // namespace

void writeFile(const std::string& path, const std::string& text) {
    kspool::Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (const int reason = writeAll(std::move(file), text); reason != 0) fail(path, reason);
}

void replaceFile(const std::string& path, const std::string& text, mode_t mode) {
    const std::string made = path + ".new";
    // A run that was killed may have left it. O_EXCL then refuses whatever is put in its place, a
    // symbolic link to another file among it.
    unlink(made.c_str());
    kspool::Descriptor file(
        open(made.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode));
    int reason = writeAll(std::move(file), text);
    if (reason == 0 && rename(made.c_str(), path.c_str()) != 0) reason = errno;
    if (reason == 0) return;
    unlink(made.c_str());
    fail(path, reason);
}

void sync(const std::string& path) {
    const kspool::Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (file.get() < 0) fail(path, errno);
    // Some file systems cannot sync folders; how durable names are is then up to them.
    if (fsync(file.get()) != 0 && errno != EINVAL && errno != ENOTSUP) fail(path, errno);
}

}  // namespace sandbox
