// Looks for logins and passwords in the memory of the process that used them. They are made of
// masked bytes, given to the library, wiped here, and then searched for in all memory that can be
// written, in pieces of eight bytes. No request is made: libcurl's own copies are not the subject.
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "mb.h"

namespace {

constexpr unsigned char kMask = 0xa5;
constexpr uint64_t kMask8 = 0xa5a5a5a5a5a5a5a5;

/// A secret that stands nowhere as it is but in text(), until wipe().
class Needle {
  public:
    Needle(size_t length, unsigned seed) {
        for (size_t i = 0; i < length; ++i) {
            seed = seed * 1103515245 + 12345;
            masked_.push_back(static_cast<char>(('!' + 1 + (seed >> 16) % 24) ^ kMask));
        }
    }
    const char* text() {
        for (size_t i = 0; i < masked_.size(); ++i)
            text_[i] = static_cast<char>(static_cast<unsigned char>(masked_[i]) ^ kMask);
        return text_;
    }
    void wipe() { explicit_bzero(text_, sizeof text_); }

    /// Eight bytes of it from `at`, masked.
    uint64_t piece(size_t at) const {
        uint64_t bytes = 0;
        memcpy(&bytes, masked_.data() + at, sizeof bytes);
        return bytes;
    }
    size_t pieces() const { return masked_.size() / 8; }

  private:
    std::vector<char> masked_;
    char text_[256] = "";
};

/// How often each piece occurs, summed up, in one area of memory.
size_t countIn(const unsigned char* from, const unsigned char* to, const Needle& needle) {
    size_t count = 0;
    for (const unsigned char* at = from; at + 8 <= to; ++at) {
        uint64_t bytes = 0;
        memcpy(&bytes, at, sizeof bytes);
        bytes ^= kMask8;
        for (size_t i = 0; i < needle.pieces(); ++i)
            if (bytes == needle.piece(8 * i)) ++count;
    }
    return count;
}

/// Copies of the needle in all memory that can be written, rounded up.
size_t copies(const Needle& needle) {
    FILE* maps = fopen("/proc/self/maps", "r");
    char line[512];
    size_t count = 0;
    while (fgets(line, sizeof line, maps) != nullptr) {
        uintptr_t from = 0, to = 0;
        char access[5] = "";
        if (sscanf(line, "%" SCNxPTR "-%" SCNxPTR " %4s", &from, &to, access) != 3) continue;
        if (strncmp(access, "rw", 2) != 0) continue;
        count += countIn(reinterpret_cast<const unsigned char*>(from),
                         reinterpret_cast<const unsigned char*>(to), needle);
    }
    fclose(maps);
    return (count + needle.pieces() - 1) / needle.pieces();
}

int failures = 0;

void expect(const char* when, size_t most, const Needle& login, const Needle& password) {
    const size_t logins = copies(login), passwords = copies(password);
    const bool good = logins <= most && passwords <= most && (most == 0 || logins > 0);
    if (!good) ++failures;
    printf("%s: %zu copies of the login, %zu of the password, at most %zu\n", when, logins,
           passwords, most);
}

/// A session's copies are its own and the transport's.
void useAndLose(size_t length) {
    Needle login(length, 1), password(length, 2), newLogin(15, 3), newPassword(15, 4);
    expect("before", 0, login, password);
    MBSession* session =
        MBInitWithAgentCfg("http://127.0.0.1:1", 0, login.text(), password.text(), "/dev/null");
    login.wipe();
    password.wipe();
    expect("set", 2, login, password);

    KSOption options[2] = {{KS_OPT_LOGIN, {}}, {KS_OPT_PASSWORD, {}}};
    options[0].value.text = newLogin.text();
    options[1].value.text = newPassword.text();
    if (MBOptionsSet(session, options, 2) != CR_STATUS_OK) ++failures;
    newLogin.wipe();
    newPassword.wipe();
    expect("replaced, the old one", 0, login, password);
    expect("replaced, the new one", 2, newLogin, newPassword);

    KSOption refused[3] = {{KS_OPT_LOGIN, {}}, {KS_OPT_PASSWORD, {}}, {KS_OPT_SPA_URL, {}}};
    refused[0].value.text = login.text();
    refused[1].value.text = password.text();
    refused[2].value.text = "";
    if (MBCreateWithAgentCfg(0, refused, 3, "/dev/null") != nullptr) ++failures;
    if (MBOptionsSet(session, refused, 3) == CR_STATUS_OK) ++failures;
    login.wipe();
    password.wipe();
    expect("refused", 0, login, password);
    MBShutdown(session);
    expect("shut down", 0, newLogin, newPassword);
}

}  // namespace

int main() {
    for (const size_t length : {size_t{8}, size_t{15}, size_t{200}})
        useAndLose(length);
    return failures == 0 ? 0 : 1;
}
