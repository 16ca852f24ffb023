// The configuration support library's stand-in: reads ini files.
//
// The file is read again and searched from its start for each entry. There is no cache that could
// become stale or would have to be shared between threads; a configuration has only ten entries.
// The only state is a hash of the last file whose faults were reported (isFirstReport).
//
// Thread rule: any thread may call any function here. So may a child of fork(): no lock is taken
// that another thread could have held at the fork.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

#include "common/ascii.h"
#include "common/owned.h"
#include "cr_status.h"
#include "platform/ini.h"
#include "platform/support.h"

namespace {

constexpr size_t kLongestLine = size_t{64} << 10;
constexpr size_t kLargestFile = size_t{16} << 20;

constexpr char kBlank[] = " \t\v\f\r";
constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";

std::string_view trimmed(std::string_view text) {
    const size_t first = text.find_first_not_of(kBlank);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(kBlank) - first + 1);
}

std::string_view unquoted(std::string_view text) {
    const bool quoted = text.size() >= 2 && text.front() == '"' && text.back() == '"';
    return quoted ? text.substr(1, text.size() - 2) : text;
}

/// The file's bytes, or none with the reason in `problem`. O_NONBLOCK keeps open() from waiting for
/// the writer of a FIFO, which is then refused as not a regular file.
std::string contentsOf(const char* file, const char*& problem) {
    std::string contents;
    const kspool::Descriptor fd(open(file, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    problem = fd.get() < 0 || fstat(fd.get(), &status) != 0 ? strerror(errno) : nullptr;
    // The file is read for each entry, but a pipe can be read only once, and a device may never
    // end.
    if (problem == nullptr && !S_ISREG(status.st_mode)) problem = "is no regular file";
    if (problem == nullptr && static_cast<size_t>(status.st_size) > kLargestFile) {
        problem = "is larger than 16 MiB";
    }
    char block[16 * 1024];
    while (problem == nullptr) {
        const ssize_t got = read(fd.get(), block, sizeof block);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) problem = strerror(errno);
        if (got <= 0) break;
        contents.append(block, static_cast<size_t>(got));
    }
    if (problem != nullptr) contents.clear();
    return contents;
}

/// True unless the last call had the same file and contents. Each entry reads the whole file, so
/// otherwise every bad line would be reported once per entry. Two files that are read alternately
/// are reported each time.
bool isFirstReport(const char* file, const std::string& contents) {
    static std::atomic<size_t> last = 0;
    const size_t mark = std::hash<std::string>()(contents) * 31 + std::hash<std::string>()(file);
    return last.exchange(mark) != mark;
}

/// True for an invalid line that may have been meant as a header, or that contains a CR, which an
/// editor may show as a line end before a header.
bool mayBeHeader(std::string_view text) {
    constexpr std::string_view kPassedOver(" \t\v\f\r\0\xef\xbb\xbf", 9);
    const size_t first = text.find_first_not_of(kPassedOver);
    if (first == std::string_view::npos) return false;
    return text[first] == '[' || text.back() == ']' || text.find('\r') != std::string_view::npos;
}

/// One pass over a file in search of one entry. It continues after the entry, so that invalid lines
/// there are reported too.
class Search {
  public:
    Search(const char* section, const char* entry, const char* file)
        : section_(section), entry_(entry), file_(file), contents_(contentsOf(file, problem_)) {}

    /// The value without blanks and quotes around it; empty when it is missing.
    std::string value() {
        reports_ = isFirstReport(file_, problem_ != nullptr ? problem_ : contents_);
        if (problem_ != nullptr && reports_) {
            NoticeA(CR_STATUS_READ_FAILED, "%s: %s", file_, problem_);
        }
        std::string_view rest = contents_;
        if (rest.starts_with(kByteOrderMark)) rest.remove_prefix(kByteOrderMark.size());
        for (number_ = 1; !rest.empty(); ++number_) {
            const size_t length = rest.find('\n');
            line(rest.substr(0, length));
            rest.remove_prefix(std::min(rest.size(), std::max(length, length + 1)));
        }
        return value_;
    }

  private:
    /// Why a line cannot be read, or NULL.
    static const char* faultOf(std::string_view line, std::string_view text) {
        if (line.size() > kLongestLine) return "is too long";
        if (text.find('\0') != std::string_view::npos) return "has a NUL byte in it";
        if (text.find('\r') != std::string_view::npos) return "has a CR in it that ends no line";
        return nullptr;
    }

    void line(std::string_view whole) {
        const std::string_view text = trimmed(whole);
        if (const char* fault = faultOf(whole, text)) return refuse(text, fault);
        if (text.empty() || text.front() == '#' || text.front() == ';') return;
        if (text.front() == '[') return header(text);
        const size_t equals = text.find('=');
        if (equals == std::string_view::npos) {
            return refuse(text, "is neither a section nor an entry");
        }
        if (!inSection_ || found_) return;
        if (!kspool::sameText(trimmed(text.substr(0, equals)), entry_)) return;
        found_ = true;
        value_ = unquoted(trimmed(text.substr(equals + 1)));
    }

    void header(std::string_view text) {
        const size_t end = text.find(']');
        if (end == std::string_view::npos) return refuse(text, "is a section without an end");
        const std::string_view rest = trimmed(text.substr(end + 1));
        if (!rest.empty() && rest.front() != '#' && rest.front() != ';') {
            return refuse(text, "has a text behind its section");
        }
        inSection_ = kspool::sameText(trimmed(text.substr(1, end - 1)), section_);
    }

    /// An invalid header still ends the section before it. Otherwise the entries below would count
    /// for that section, and a login could be sent to the URL of another section.
    void refuse(std::string_view text, const char* fault) {
        if (mayBeHeader(text)) inSection_ = false;
        report(fault);
    }

    void report(const char* what) const {
        if (reports_) NoticeA(CR_STATUS_BAD_HANDLE, "%s: line %zu %s", file_, number_, what);
    }

    const char* section_;
    const char* entry_;
    const char* file_;
    const char* problem_ = nullptr;
    const std::string contents_;
    bool reports_ = false;
    bool inSection_ = false;
    size_t number_ = 0;
    bool found_ = false;
    std::string value_;
};

std::string valueOf(const char* section, const char* entry, const char* file) {
    const int savedErrno = errno;
    std::string value;
    try {
        value = Search(section, entry, file).value();
    } catch (const std::exception& error) {
        NoticeA(CR_STATUS_NO_MEMORY, "%s: [%s] %s: %s", file, section, entry, error.what());
    }
    errno = savedErrno;
    return value;
}

/// The number at the start of the value, if any, saturated to int64_t as by strtoll().
std::optional<int64_t> numberOf(const char* section, const char* entry, const char* file) {
    const std::string text = valueOf(section, entry, file);
    const int savedErrno = errno;
    char* end = nullptr;
    const int64_t number = strtoll(text.c_str(), &end, 10);
    errno = savedErrno;
    if (end == text.c_str()) return {};
    return number;
}

}  // namespace

int InifileGetValueA(const char* section, const char* entry, char* destination, int maxCharacters,
                     const char* defaultValue, const char* file) noexcept {
    const std::string value = valueOf(section, entry, file);
    const size_t size = static_cast<size_t>(std::max(maxCharacters, 0)) + 1;
    if (value.empty()) {
        qlxstrcpy(destination, defaultValue != nullptr ? defaultValue : "", size);
        return 0;
    }
    qlxstrcpy(destination, value.c_str(), size);
    if (value.size() >= size) {
        NoticeA(CR_STATUS_LIMIT_EXCEEDED, "%s: [%s] %s: value cut to %d characters", file, section,
                entry, maxCharacters);
    }
    return static_cast<int>(std::min(value.size(), size - 1));
}

int InifileGetPathA(const char* section, const char* entry, char* destination, int maxCharacters,
                    const char* defaultValue, const char* file) noexcept {
    return InifileGetValueA(section, entry, destination, maxCharacters, defaultValue, file);
}

int InifileGetLongLongA(const char* section, const char* entry, int64_t* value,
                        int64_t defaultValue, const char* file) noexcept {
    const auto number = numberOf(section, entry, file);
    *value = number.value_or(defaultValue);
    return number.has_value() ? 1 : 0;
}

int InifileGetIntegerA(const char* section, const char* entry, int32_t* value, int32_t defaultValue,
                       const char* file) noexcept {
    using Limits = std::numeric_limits<int32_t>;
    const auto number = numberOf(section, entry, file);
    const int64_t wide = number.value_or(defaultValue);
    *value = static_cast<int32_t>(std::clamp<int64_t>(wide, Limits::min(), Limits::max()));
    return number.has_value() ? 1 : 0;
}

void InifileNoticeA(const char* file, const char* section, const char* entry, int,
                    const char* message) noexcept {
    NoticeA(CR_STATUS_NOT_FOUND, "%s: [%s] %s: %s", file, section, entry, message);
}

void InifileValueNoticeA(const char* file, const char* section, const char* entry, int64_t value,
                         const char* message) noexcept {
    NoticeA(CR_STATUS_INVALID_VALUE, "%s: [%s] %s = %" PRId64 ": %s", file, section, entry, value,
            message);
}

void InifileValueErrorA(const char* file, const char* section, const char* entry, int64_t value,
                        const char* format, ...) noexcept {
    char message[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    ErrorA(CR_STATUS_INVALID_VALUE, "%s: [%s] %s = %" PRId64 ": %s", file, section, entry, value,
           message);
}
