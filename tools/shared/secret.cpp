#include "tools/shared/secret.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tools/shared/descriptor.h"
#include "tools/shared/text.h"

namespace pool {
namespace {

constexpr char kVariable[] = "KSPOOL_PASSWORD";
constexpr char kTooLong[] = "the password is longer than 255 characters";

/// Byte by byte, so that no buffer keeps a copy and standard input goes on with its second line.
std::string readFirstLine(int fd, Secret& secret) {
    char character = 0;
    std::string problem;
    for (;;) {
        const ssize_t got = read(fd, &character, 1);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) problem = strerror(errno);
        if (got <= 0 || character == '\n') break;
        if (character == '\0') problem = "the password holds a NUL";
        if (problem.empty() && !secret.append(character)) problem = kTooLong;
        if (!problem.empty()) break;
    }
    explicit_bzero(&character, sizeof character);
    if (secret.last() == '\r') secret.dropLast();
    if (problem.empty() && secret.empty()) problem = "the first line holds no password";
    return problem;
}

std::string readFile(const std::string& path, Secret& secret) {
    const tool::Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    struct stat status {};
    if (file.get() < 0 || fstat(file.get(), &status) != 0) return strerror(errno);
    if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        return "is open to other users, so it is not taken for a password: chmod 600";
    }
    return readFirstLine(file.get(), secret);
}

std::string readStandardInput(Secret& secret) {
    if (isatty(STDIN_FILENO) != 0) return "is a terminal, which would show the password";
    return readFirstLine(STDIN_FILENO, secret);
}

/// The process's environment can be read from outside, so the value is wiped where it stands.
std::string takeVariable(bool wanted, Secret& secret) {
    char* value = getenv(kVariable);
    if (value == nullptr) return {};
    const size_t length = strlen(value);
    bool fits = true;
    for (size_t i = 0; wanted && fits && i < length; ++i)
        fits = secret.append(value[i]);
    explicit_bzero(value, length);
    unsetenv(kVariable);
    return fits ? "" : kTooLong;
}

}  // namespace

Secret::~Secret() {
    explicit_bzero(text_.data(), text_.size());
}

bool Secret::append(char character) {
    if (length_ == kLongest) return false;
    text_[length_++] = character;
    return true;
}

void Secret::dropLast() {
    text_[--length_] = '\0';
}

std::string takePassword(const std::string& file, Secret& secret) {
    const std::string variable = takeVariable(file.empty(), secret);
    if (!variable.empty()) return std::string("$") + kVariable + ": " + variable;
    if (file.empty()) return {};
    const bool standardInput = file == "-";
    const std::string problem = standardInput ? readStandardInput(secret) : readFile(file, secret);
    if (problem.empty()) return {};
    return (standardInput ? "standard input" : tool::printable(file)) + ": " + problem;
}

}  // namespace pool
