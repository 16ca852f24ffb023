#include "tools/shared/input.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/owned.h"
#include "tools/shared/failure.h"
#include "tools/shared/text.h"

namespace tool {
namespace {

constexpr size_t kBlockSize = 1 << 16;

[[noreturn]] void fail(const std::string& name) {
    throw Failure(ExitCode::kUsage, name + ": " + strerror(errno));
}

std::string readAll(int fd, const std::string& name) {
    std::string text;
    for (size_t length = 0;;) {
        text.resize(length + kBlockSize);
        const ssize_t got = read(fd, text.data() + length, kBlockSize);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) fail(name);
        length += static_cast<size_t>(got);
        text.resize(length);
        if (got == 0) return text;
    }
}

}  // namespace

std::string readInput(const std::string& path) {
    if (path.empty() || path == "-") return readAll(STDIN_FILENO, "standard input");
    const std::string name = printable(path);
    const kspool::Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (file.get() < 0) fail(name);
    return readAll(file.get(), name);
}

}  // namespace tool
