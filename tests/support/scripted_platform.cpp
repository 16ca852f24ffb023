#include "tests/support/scripted_platform.h"

#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstring>
#include <map>
#include <utility>
#include <vector>

#include "platform/ini.h"
#include "platform/status.h"
#include "platform/support.h"

namespace scripted {
namespace {

using operations::quoted;

std::string lines;
std::map<const void*, size_t> names;
uint32_t slot = 0;
int traceSwitch = 0;

/// Takes the next argument as its conversion says ("lu", "i", "zu", "s", "p", "lf").
std::string argumentText(const std::string& conversion, va_list& arguments) {
    const bool wide = conversion.size() > 1;
    switch (conversion.back()) {
        case 's':
            return quoted(va_arg(arguments, const char*));
        case 'p':
            return pointerName(va_arg(arguments, const void*));
        case 'f': {
            char text[64];
            snprintf(text, sizeof text, "%.2f", va_arg(arguments, double));
            return text;
        }
        case 'd':
        case 'i':
            return std::to_string(wide ? va_arg(arguments, long) : va_arg(arguments, int));
        case 'u':
            return std::to_string(wide ? va_arg(arguments, unsigned long)
                                       : va_arg(arguments, unsigned));
        default:
            return "?" + conversion;
    }
}

/// Records "CALL(HEAD"FORMAT", ARGUMENTS...)".
void recordMessage(const char* call, const std::string& head, const char* format,
                   va_list arguments) {
    va_list rest;
    va_copy(rest, arguments);
    std::string line = std::string(call) + "(" + head + quoted(format);
    for (const char* at = strchr(format, '%'); at != nullptr; at = strchr(at, '%')) {
        ++at;
        if (*at == '%') {
            ++at;
            continue;
        }
        at += strspn(at, "-+ #0123456789.");
        const size_t length = strspn(at, "hlzjt") + 1;
        line += ", " + argumentText(std::string(at, length), rest);
    }
    va_end(rest);
    record(line + ")");
    errno = EDOM;
    slot = 0xBAD;
}

}  // namespace

void record(const std::string& line) {
    lines += line + "\n";
}

std::string takeRecord() {
    return std::exchange(lines, {});
}

std::string pointerName(const void* pointer) {
    if (pointer == nullptr) return "NULL";
    return "#" + std::to_string(names.try_emplace(pointer, names.size() + 1).first->second);
}

void forgetPointers() {
    names.clear();
}

void reset() {
    lines.clear();
    forgetPointers();
    forgetReplies();
    slot = 0;
    traceSwitch = 0;
}

}  // namespace scripted

using namespace scripted;
using operations::quoted;

uint32_t* __cr_errno_location() noexcept {
    return &slot;
}
const char* CRStatusToStringA(uint32_t) noexcept {
    return "status text";
}
int* __qlxlog_trace_location() noexcept {
    return &traceSwitch;
}

uint32_t _crMapError(const char* function, const char* sourceFile, int line) noexcept {
    const int error = errno;
    record("_crMapError(" + quoted(function) + ", " + quoted(sourceFile) +
           (line > 0 ? ", line)" : ", no line)") + " errno " + std::to_string(error));
    errno = EDOM;
    slot = 0xBAD;
    return 1000U + static_cast<uint32_t>(error);
}

#define RECORD(call, head)                            \
    do {                                              \
        va_list arguments;                            \
        va_start(arguments, format);                  \
        recordMessage(call, head, format, arguments); \
        va_end(arguments);                            \
    } while (false)

void __TraceA(const char* format, ...) noexcept {
    RECORD("__TraceA", "");
}
#define MESSAGE(call)                                              \
    void call(uint32_t status, const char* format, ...) noexcept { \
        RECORD(#call, shown(status) + ", ");                       \
    }
MESSAGE(ErrorA)
MESSAGE(WarningA)
MESSAGE(NoticeA)
MESSAGE(InfoA)
void qlxLogA(uint32_t status, uint32_t level, const char* format, ...) noexcept {
    RECORD("qlxLogA", listed(status, level) + ", ");
}
void qlxSetFatalError(const char* function, uint32_t id, const char* format, ...) noexcept {
    RECORD("qlxSetFatalError", listed(function, id) + ", ");
}
void InifileValueErrorA(const char* file, const char* section, const char* entry, int64_t value,
                        const char* format, ...) noexcept {
    RECORD("InifileValueErrorA", listed(file, nameOffsets(section, entry), value) + ", ");
}

uint64_t OSGetRSS() noexcept {
    record("OSGetRSS()");
    return (uint64_t{1} << 32) + 4711;
}
int qlx_unlink(const char* path) noexcept {
    record("qlx_unlink(" + quoted(path) + ")");
    return unlink(path);
}

const char* CRFPDigestToString_r(const void* fingerprint, uint32_t type, char* buffer,
                                 size_t size) noexcept {
    const auto* bytes = static_cast<const uint8_t*>(fingerprint);
    snprintf(buffer, size, "%02x..%02x/%u", bytes[0], bytes[15], type);
    return buffer;
}

/// read() or write() until the header is through or the call fails.
template <typename Call>
static bool moveHeader(Call call, int fd, char* text) {
    ssize_t moved = 0;
    for (ssize_t now = 1; moved < kMagicLength && now > 0; moved += now) {
        do {
            now = call(fd, text + moved, static_cast<size_t>(kMagicLength - moved));
        } while (now < 0 && errno == EINTR);
    }
    return moved == kMagicLength;
}

// A header that is shorter than others' and not aligned: the library may not know its length.
int qlxMagicWrite(uint32_t type, int fd, uint64_t value) noexcept {
    record("qlxMagicWrite(" + std::to_string(type) + ", fd, " + std::to_string(value) + ")");
    char text[kMagicLength + 1];
    snprintf(text, sizeof text, "%02" PRIx32 "%016" PRIx64 "\n", type & 0xff, value);
    return moveHeader(write, fd, text) ? 0 : -1;
}

uint32_t qlxMagicRead(int fd, QLXMagic* header) noexcept {
    char text[kMagicLength + 1] = {};
    *header = {};
    if (!moveHeader(read, fd, text)) return 0;
    if (sscanf(text, "%2" SCNx32 "%16" SCNx64, &header->type, &header->value) != 2) return 0;
    return header->type;
}
