// The support library's stand-in: texts, files, magic headers and process facts. No state: any
// thread may call any function here.
#include <endian.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "platform/support.h"

namespace {

// As in PNG's signature: the first byte shows that the file is not text, and a transfer that
// converts line ends or stops at ^Z damages the rest.
constexpr char kSignature[8] = {'\x8b', 'K', 'S', 'P', '\r', '\n', '\x1a', '\n'};

struct MagicOnDisk {
    char signature[8];
    uint32_t type;
    uint32_t zero;
    uint64_t value;
};
static_assert(sizeof(MagicOnDisk) == QLX_MAGIC_LENGTH);

/// Repeats read() or write() until `size` bytes are transferred: a call may transfer fewer bytes,
/// or be interrupted by a signal.
template <typename Call, typename Byte>
bool transferAll(Call call, int fd, Byte* bytes, size_t size) {
    while (size > 0) {
        const ssize_t moved = call(fd, bytes, size);
        if (moved < 0 && errno == EINTR) continue;
        if (moved <= 0) return false;
        bytes += moved;
        size -= static_cast<size_t>(moved);
    }
    return true;
}

}  // namespace

char* qlxstrcpy(char* destination, const char* source, size_t size) noexcept {
    if (size == 0) return destination;
    const size_t length = strnlen(source, size - 1);
    memcpy(destination, source, length);
    destination[length] = '\0';
    return destination;
}

int qlx_access(const char* path, int mode) noexcept {
    struct stat status {};
    if (access(path, mode) != 0) return -1;
    if ((mode & R_OK) == 0 || stat(path, &status) != 0 || !S_ISDIR(status.st_mode)) return 0;
    errno = EISDIR;
    return -1;
}

int qlx_unlink(const char* path) noexcept {
    return unlink(path);
}

int qlxMagicWrite(uint32_t type, int fd, uint64_t value) noexcept {
    MagicOnDisk magic = {{}, htole32(type), 0, htole64(value)};
    memcpy(magic.signature, kSignature, sizeof kSignature);
    return transferAll(write, fd, reinterpret_cast<const char*>(&magic), sizeof magic) ? 0 : -1;
}

uint32_t qlxMagicRead(int fd, QLXMagic* header) noexcept {
    *header = {};
    MagicOnDisk magic;
    if (!transferAll(read, fd, reinterpret_cast<char*>(&magic), sizeof magic)) return 0;
    if (memcmp(magic.signature, kSignature, sizeof kSignature) != 0) return 0;
    if (magic.type == 0 || magic.zero != 0) return 0;
    *header = {le64toh(magic.value), le32toh(magic.type), 0};
    return header->type;
}

const char* OSGetProcName(int) noexcept {
    const char* name = program_invocation_short_name;
    return name != nullptr && *name != '\0' ? name : "unknown";
}

uint64_t OSGetRSS() noexcept {
    const int fd = open("/proc/self/statm", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return 0;
    char text[128] = {};
    const ssize_t length = read(fd, text, sizeof text - 1);
    close(fd);
    // The second number: resident pages.
    const char* second = length > 0 ? strchr(text, ' ') : nullptr;
    if (second == nullptr) return 0;
    return strtoull(second, nullptr, 10) * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}
