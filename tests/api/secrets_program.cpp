// Looks for logins and passwords in the memory of the process that used them. They are made of
// masked bytes, given to the library, wiped here, and then searched for in all memory that can be
// written, in pieces of eight bytes. libcurl has copies of its own in memory that is left out.
#include <curl/curl.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <vector>

#include "mb.h"
#include "platform/ws.h"

namespace {

constexpr uint64_t kMask = 0xa5a5a5a5a5a5a5a5;

/// A secret that stands nowhere as it is but in text(), until wipe(). In `masked`, in words.
struct Needle {
    Needle(size_t length, uint64_t seed) : size(length), masked((length + 7) / 8) {
        for (uint64_t& word : masked)  // of letters
            word = ((seed = seed * 6364136223846793005 + 1) >> 4 & 0x0f0f0f0f0f0f0f0f) +
                   (0x4141414141414141 ^ kMask);
    }
    const char* text() {
        // Byte by byte: a word in a variable may stay on the stack.
        for (size_t i = 0; i < size; ++i)
            open[i] = static_cast<char>((masked[i / 8] ^ kMask) >> i % 8 * 8);
        open[size] = '\0';
        return open;
    }
    void wipe() { explicit_bzero(open, sizeof open); }

    size_t size;
    std::vector<uint64_t> masked;
    char open[256] = "";
};

/// libcurl's memory, of which none is used twice.
alignas(16) char libcurls[4 << 20];
char* unused = libcurls;
void* take(size_t size) {
    return (unused += (size + 15) / 16 * 16) - (size + 15) / 16 * 16;
}

/// Copies of the needle in all memory that can be written, rounded up.
size_t copies(const Needle& needle) {
    FILE* maps = fopen("/proc/self/maps", "r");
    char line[512], access[5];
    uintptr_t from = 0, to = 0;
    const size_t pieces = needle.size / 8;
    size_t count = 0;
    while (fgets(line, sizeof line, maps) != nullptr) {
        const char* format = "%" SCNxPTR "-%" SCNxPTR " %4s";
        if (sscanf(line, format, &from, &to, access) != 3 || strncmp(access, "rw", 2) != 0)
            continue;
        for (uintptr_t at = from; at + 8 <= to; ++at) {
            if (at - reinterpret_cast<uintptr_t>(libcurls) < sizeof libcurls) continue;
            uint64_t word = 0;
            memcpy(&word, reinterpret_cast<const char*>(at), sizeof word);
            for (size_t i = 0; i < pieces; ++i)
                count += (word ^ kMask) == needle.masked[i] ? 1 : 0;
        }
    }
    fclose(maps);
    return (count + pieces - 1) / pieces;
}

int failures = 0;

void expect(const char* when, size_t most, const Needle& login, const Needle& password) {
    const size_t logins = copies(login), passwords = copies(password);
    if (logins > most || passwords > most || (most > 0 && logins * passwords == 0)) ++failures;
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
    if (MBDirCreate(session, "x") != WS_STATUS_NO_CONNECT) ++failures;
    expect("used", 2, login, password);

    KSOption options[] = {{KS_OPT_LOGIN, {.text = newLogin.text()}},
                          {KS_OPT_PASSWORD, {.text = newPassword.text()}}};
    if (MBOptionsSet(session, options, 2) != CR_STATUS_OK) ++failures;
    newLogin.wipe();
    newPassword.wipe();
    expect("replaced, the old one", 0, login, password);
    expect("replaced, the new one", 2, newLogin, newPassword);

    KSOption refused[] = {{KS_OPT_LOGIN, {.text = login.text()}},
                          {KS_OPT_PASSWORD, {.text = password.text()}},
                          {KS_OPT_SPA_URL, {.text = ""}}};
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
    curl_global_init_mem(
        CURL_GLOBAL_DEFAULT, take, [](void*) {},
        [](void* old, size_t size) { return memmove(take(size), old ? old : libcurls, size); },
        [](const char* text) { return strcpy(static_cast<char*>(take(strlen(text) + 1)), text); },
        [](size_t count, size_t size) { return take(count * size); });
    for (const size_t length : {size_t{8}, size_t{15}, size_t{200}})
        useAndLose(length);
    return failures == 0 ? 0 : 1;
}
