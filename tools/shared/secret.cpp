#include "tools/shared/secret.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "common/owned.h"
#include "tools/shared/failure.h"
#include "tools/shared/text.h"

namespace tool {
namespace {

using Problem = std::optional<std::string>;

constexpr char kVariable[] = "KSPOOL_PASSWORD";
constexpr char kTooLong[] = "the password is longer than 255 characters";

/// Reads byte by byte: a buffer would keep a copy of the password, and would consume more of
/// standard input than the first line.
Problem readFirstLine(int fd, Secret& secret) {
    char character = 0;
    Problem problem;
    while (!problem) {
        const ssize_t got = read(fd, &character, 1);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) problem = strerror(errno);
        if (got <= 0 || character == '\n') break;
        if (character == '\0') {
            problem = "the password holds a NUL";
        } else if (!secret.append(character)) {
            problem = kTooLong;
        }
    }
    explicit_bzero(&character, sizeof character);
    if (secret.last() == '\r') secret.dropLast();
    if (!problem && secret.empty()) problem = "the first line holds no password";
    return problem;
}

Problem readFile(const std::string& path, Secret& secret) {
    const kspool::Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    struct stat status {};
    if (file.get() < 0 || fstat(file.get(), &status) != 0) return strerror(errno);
    if (S_ISDIR(status.st_mode)) return strerror(EISDIR);
    if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        return "is open to other users, so it is not taken for a password: chmod 600";
    }
    return readFirstLine(file.get(), secret);
}

Problem readStandardInput(Secret& secret) {
    if (isatty(STDIN_FILENO) != 0) return "is a terminal, which would show the password";
    return readFirstLine(STDIN_FILENO, secret);
}

/// Takes the password from the environment if `wanted`. In any case wipes the value in place, since
/// other processes can read the environment of a process.
Problem takeVariable(bool wanted, Secret& secret) {
    char* value = getenv(kVariable);
    if (value == nullptr) return {};
    const size_t length = strlen(value);
    bool fits = true;
    for (size_t i = 0; wanted && fits && i < length; ++i)
        fits = secret.append(value[i]);
    explicit_bzero(value, length);
    unsetenv(kVariable);
    if (!fits) return kTooLong;
    return {};
}

void require(const std::string& source, const Problem& problem) {
    if (problem) throw Failure(ExitCode::kUsage, source + ": " + *problem);
}

}  // namespace

void takePassword(const std::string& file, Secret& secret) {
    require(std::string("$") + kVariable, takeVariable(file.empty(), secret));
    if (file.empty()) return;
    if (file == "-") {
        require("standard input", readStandardInput(secret));
    } else {
        require(printable(file), readFile(file, secret));
    }
}

}  // namespace tool
