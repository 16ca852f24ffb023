#include "tools/shared/durable.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "common/owned.h"
#include "tools/shared/failure.h"

namespace tool {
namespace {

[[noreturn]] void fail(const std::string& path) {
    throw Failure(path + ": " + strerror(errno));
}

/// O_NONBLOCK: otherwise opening a FIFO without a writer would block for ever.
constexpr int kRead = O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;

mode_t modeFor(const std::string& path) {
    struct stat old {};
    const bool kept = lstat(path.c_str(), &old) == 0 && S_ISREG(old.st_mode);
    return kept ? old.st_mode & 07777 : 0600;
}

bool writeAll(int fd, const std::string& text) {
    for (size_t done = 0; done < text.size();) {
        const ssize_t wrote = write(fd, text.data() + done, text.size() - done);
        if (wrote < 0 && errno == EINTR) continue;
        if (wrote < 0) return false;
        done += static_cast<size_t>(wrote);
    }
    return true;
}

/// False with errno set. Removes a file that a crash has left; O_EXCL then refuses anything that
/// another process creates in its place.
bool writeNew(const std::string& path, const std::string& text, mode_t mode) {
    unlink(path.c_str());
    const kspool::Descriptor file(
        open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
    return file.get() >= 0 && writeAll(file.get(), text) && fchmod(file.get(), mode) == 0 &&
           fsync(file.get()) == 0;
}

/// Some file systems cannot sync folders; how durable the rename is, is then up to them.
bool syncFolder(const std::string& path) {
    const std::string folder = std::filesystem::path(path).parent_path();
    const kspool::Descriptor fd(
        open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd.get() < 0) return false;
    return fsync(fd.get()) == 0 || errno == EINVAL || errno == ENOTSUP;
}

}  // namespace

std::optional<std::string> readWhole(const std::string& path) {
    const kspool::Descriptor file(open(path.c_str(), kRead));
    if (file.get() < 0 && errno == ENOENT) return {};
    struct stat status {};
    if (file.get() < 0 || fstat(file.get(), &status) != 0) fail(path);
    if (!S_ISREG(status.st_mode)) throw Failure(path + ": not a regular file");
    std::string text;
    char block[16384];
    for (;;) {
        const ssize_t got = read(file.get(), block, sizeof block);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) fail(path);
        if (got == 0) return text;
        text.append(block, static_cast<size_t>(got));
    }
}

void replaceWhole(const std::string& path, const std::string& text) {
    const std::string made = path + ".new";
    if (!writeNew(made, text, modeFor(path)) || rename(made.c_str(), path.c_str()) != 0) {
        const int reason = errno;
        unlink(made.c_str());
        errno = reason;
        fail(path);
    }
    if (!syncFolder(path)) fail(path);
}

}  // namespace tool
