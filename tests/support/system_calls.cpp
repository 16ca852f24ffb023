#include "tests/support/system_calls.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "tests/support/scripted_platform.h"

#define DECLARATION(call, type, name, parameters, ...) type __real_##name parameters;
extern "C" {
FAILING_CALLS(DECLARATION)
OTHER_CALLS(DECLARATION)
}

namespace calls {
namespace {

#define NAME(call, type, name, ...) #name,
constexpr std::array<const char*, kCalls> kNames = {FAILING_CALLS(NAME) "platform",
                                                    OTHER_CALLS(NAME)};

std::array<size_t, kCalls> counts;
Failure wanted;
FailurePlan plan;
size_t mostMoved = SIZE_MAX;
bool interrupted = false;
void (*seekHook)() = [] {};
Placement placement = Placement::kAsAsked;

/// A set that allocates nothing itself: in a static program its own calls would be wrapped too.
class Blocks {
  public:
    size_t size() const { return count_; }
    void insert(const void* start, size_t length) {
        if (count_ == blocks_.size()) abort();
        blocks_[count_++] = {start, length};
    }
    /// Only whole blocks go.
    void erase(const void* start, size_t length) {
        for (size_t i = 0; i < count_; ++i) {
            if (blocks_[i].start != start || blocks_[i].length != length) continue;
            blocks_[i] = blocks_[--count_];
            return;
        }
    }

  private:
    struct Block {
        const void* start;
        size_t length;
    };
    std::array<Block, 1024> blocks_{};
    size_t count_ = 0;
};

Blocks allocations;
Blocks mappings;
Blocks descriptors;
bool watching = false;

/// Counts a call; true, with errno set, when it is to fail.
bool fails(Call call, bool ofPage = true) {
    if (!watching) return false;
    ++counts[call];
    const Call asked = call == kStrndup ? kStrdup : call;  // scripts know one name for both
    if (wanted.call == kAny ? call > kLastOfAny : asked != wanted.call) return false;
    if (wanted.pagesOnly && !ofPage) return false;
    if (!failsNow(&plan)) return false;
    errno = wanted.error;
    return true;
}

const void* descriptorName(int fd) {
    return reinterpret_cast<const void*>(static_cast<intptr_t>(fd) + 1);
}

/// Makes a read or write of what of `length` may be moved, or tells an interruption.
template <typename Transfer>
ssize_t transferred(Call call, size_t length, Transfer transfer) {
    if (fails(call)) return -1;
    if (watching && mostMoved != SIZE_MAX && (interrupted = !interrupted)) {
        errno = EINTR;
        return -1;
    }
    return transfer(std::min(length, watching ? mostMoved : length));
}

/// An address inside a span of our own for the n-th page of a run.
void* placedAddress(size_t length) {
    constexpr size_t kSpan = size_t{1} << 30;
    constexpr size_t kSlots = 64;
    static char* const base = static_cast<char*>(
        __real_mmap(nullptr, kSpan, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    const size_t page = mappings.size() % kSlots;
    const size_t slot =
        placement == Placement::kDescending ? kSlots - 1 - page : page * 37 % kSlots;
    return length <= kSpan / kSlots ? base + slot * (kSpan / kSlots) : nullptr;
}

/// Records a call on a lock, which is not made.
int lock(Call call, const void* address, size_t length, bool fail) {
    const int error = errno;
    if (watching)
        scripted::record(std::string(kNames[call]) + "(" + scripted::pointerName(address) + ", " +
                         std::to_string(length) + ") = " + (fail ? "-1" : "0"));
    errno = error;
    return fail ? -1 : 0;
}

/// Memory that was allocated, which is watched from now on.
template <typename Memory>
Memory* allocated(Memory* memory) {
    if (watching && memory != nullptr) allocations.insert(memory, 0);
    return memory;
}

}  // namespace

Call callNamed(const std::string& name) {
    return static_cast<Call>(std::find(kNames.begin(), kNames.end(), name) - kNames.begin());
}

void fail(const Failure& failure) {
    wanted = failure;
    plan = {failure.nth, failure.fromThenOn, 0, 0};
}

bool failsOnDemand(Call call) {
    return fails(call);
}

size_t failures() {
    return plan.failed;
}
size_t made(Call call) {
    return counts[call];
}
void place(Placement where) {
    placement = where;
}
void cutTransfers(size_t most) {
    mostMoved = most;
    interrupted = false;
}
void beforeSeeks(void (*happens)()) {
    seekHook = happens;
}
size_t live() {
    return allocations.size() + mappings.size() + descriptors.size();
}

void watch() {
    fail({});
    place(Placement::kAsAsked);
    cutTransfers(SIZE_MAX);
    beforeSeeks([] {});
    watching = true;
}

void leaveAlone() {
    watch();
    watching = false;
}

}  // namespace calls

using namespace calls;

void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return fails(kCalloc) ? nullptr : ::operator new(size);
}

extern "C" {

#define WRAPPED(call, type, name, parameters, arguments, failure, error) \
    type __wrap_##name parameters {                                      \
        return fails(call) ? failure : __real_##name arguments;          \
    }
PLACING_CALLS(WRAPPED)

int __wrap_getrlimit(__rlimit_resource_t resource, rlimit* limit) {
    return fails(kGetrlimit) ? -1 : __real_getrlimit(resource, limit);
}

void* __wrap_calloc(size_t count, size_t size) {
    return fails(kCalloc) ? nullptr : allocated(__real_calloc(count, size));
}

char* __wrap_strndup(const char* text, size_t most) {
    return fails(kStrndup) ? nullptr : allocated(__real_strndup(text, most));
}

char* __wrap_strdup(const char* text) {
    return fails(kStrdup) ? nullptr : allocated(__real_strdup(text));
}

static int print(char* text, size_t size, const char* format, va_list arguments) {
    return fails(kSnprintf) ? -1 : vsnprintf(text, size, format, arguments);
}

int __wrap_snprintf(char* text, size_t size, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = print(text, size, format, arguments);
    va_end(arguments);
    return length;
}

void* __wrap_realloc(void* old, size_t size) {
    if (fails(kRealloc)) return nullptr;
    void* memory = __real_realloc(old, size);
    allocations.erase(old, 0);
    return allocated(memory);
}

void __wrap_free(void* memory) {
    if (watching) ++counts[kFree];
    allocations.erase(memory, 0);
    __real_free(memory);
}

void* __wrap_mmap(void* hint, size_t length, int protection, int flags, int fd, off_t offset) {
    const bool page = protection != PROT_NONE;
    if (fails(kMmap, page)) return MAP_FAILED;
    if ((flags & MAP_PRIVATE) == 0) abort();
    if (page && placement == Placement::kAtZero) {
        mappings.insert(nullptr, length);
        return nullptr;
    }
    const bool placed = page && placement != Placement::kAsAsked;
    if (placed) hint = placedAddress(length);
    void* memory =
        __real_mmap(hint, length, protection, flags | (placed ? MAP_FIXED : 0), fd, offset);
    if (watching && memory != MAP_FAILED) mappings.insert(memory, length);
    return memory;
}

int __wrap_munmap(void* memory, size_t length) {
    ++counts[kMunmap];
    mappings.erase(memory, length);
    return memory == nullptr ? 0 : __real_munmap(memory, length);
}

int __wrap_mlock(const void* memory, size_t length) {
    return lock(kMlock, memory, length, fails(kMlock));
}

int __wrap_munlock(const void* memory, size_t length) {
    return lock(kMunlock, memory, length, fails(kMunlock));
}

int __wrap_munlockall() {
    ++counts[kMunlockall];
    return lock(kMunlockall, nullptr, 0, false);
}

int __wrap_madvise(void* memory, size_t length, int advice) {
    ++counts[kMadvise];
    __real_madvise(memory, length, advice);
    errno = EINVAL;  // whatever comes of advice, nobody may notice
    return -1;
}

int __wrap_open(const char* path, int flags, mode_t mode) {
    if (fails(kOpen)) return -1;
    // A program that this process starts would get it. The compiler opens records of coverage.
    if ((flags & O_CLOEXEC) == 0 && strstr(path, ".gcda") == nullptr) abort();
    const int fd = __real_open(path, flags, mode);
    if (watching && fd >= 0) descriptors.insert(descriptorName(fd), 0);
    return fd;
}

int __wrap_close(int fd) {
    ++counts[kClose];
    descriptors.erase(descriptorName(fd), 0);
    return __real_close(fd);
}

ssize_t __wrap_read(int fd, void* bytes, size_t length) {
    return transferred(kRead, length, [=](size_t now) { return __real_read(fd, bytes, now); });
}

ssize_t __wrap_write(int fd, const void* bytes, size_t length) {
    return transferred(kWrite, length, [=](size_t now) { return __real_write(fd, bytes, now); });
}

// What calls of fortified code become.
ssize_t __wrap___read_chk(int fd, void* bytes, size_t length, size_t room) {
    return length <= room ? __wrap_read(fd, bytes, length) : -1;
}

int __wrap___snprintf_chk(char* text, size_t size, int, size_t, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = print(text, size, format, arguments);
    va_end(arguments);
    return length;
}

off_t __wrap_lseek(int fd, off_t offset, int whence) {
    if (watching && whence == SEEK_SET) seekHook();
    return fails(kLseek) ? -1 : __real_lseek(fd, offset, whence);
}

}  // extern "C"
