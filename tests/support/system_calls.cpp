#include "tests/support/system_calls.h"

#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>

#include "tests/support/scripted_platform.h"

extern "C" {
void* __real_calloc(size_t, size_t);
void* __real_mmap(void*, size_t, int, int, int, off_t);
void __real_free(void*);
int __real_munmap(void*, size_t);
int __real_madvise(void*, size_t, int);
}

namespace calls {
namespace {

constexpr std::array<const char*, kCalls> kNames = {"calloc", "mmap",   "mlock",      "munlock",
                                                    "free",   "munmap", "munlockall", "madvise"};

std::array<size_t, kCalls> counts;
Failure wanted;
size_t matched = 0;
size_t failed = 0;
Placement placement = Placement::AsAsked;

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
bool watching = false;

/// Counts a call; true, with errno set, when it is to fail.
bool fails(Call call, bool ofPage = true) {
    if (!watching) return false;
    ++counts[call];
    if (wanted.nth == 0 || (wanted.call != kAny && wanted.call != call)) return false;
    if (wanted.pagesOnly && !ofPage) return false;
    ++matched;
    if (matched < wanted.nth || (matched > wanted.nth && !wanted.fromThenOn)) return false;
    ++failed;
    errno = wanted.error;
    return true;
}

/// An address inside a span of our own for the n-th page of a run.
void* placedAddress(size_t length) {
    constexpr size_t kSpan = size_t{1} << 30;
    constexpr size_t kSlots = 64;
    static char* const base = static_cast<char*>(
        __real_mmap(nullptr, kSpan, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    const size_t page = mappings.size() % kSlots;
    const size_t slot = placement == Placement::Descending ? kSlots - 1 - page : page * 37 % kSlots;
    return length <= kSpan / kSlots ? base + slot * (kSpan / kSlots) : nullptr;
}

void recordLock(Call call, const void* address, size_t length, int result) {
    if (!watching) return;
    const int error = errno;
    scripted::record(std::string(kNames[call]) + "(" + scripted::pointerName(address) + ", " +
                     std::to_string(length) + ") = " + std::to_string(result));
    errno = error;
}

}  // namespace

Call callNamed(const std::string& name) {
    return static_cast<Call>(std::find(kNames.begin(), kNames.end(), name) - kNames.begin());
}

void fail(const Failure& failure) {
    wanted = failure;
    matched = 0;
    failed = 0;
}

size_t failures() {
    return failed;
}
size_t made(Call call) {
    return counts[call];
}
void place(Placement where) {
    placement = where;
}
size_t live() {
    return allocations.size() + mappings.size();
}

void watch() {
    fail({});
    place(Placement::AsAsked);
    watching = true;
}

void leaveAlone() {
    watch();
    watching = false;
}

}  // namespace calls

using namespace calls;

extern "C" {

void* __wrap_calloc(size_t count, size_t size) {
    if (fails(kCalloc)) return nullptr;
    void* memory = __real_calloc(count, size);
    if (watching && memory != nullptr) allocations.insert(memory, 0);
    return memory;
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
    if (page && placement == Placement::AtZero) {
        mappings.insert(nullptr, length);
        return nullptr;
    }
    const bool placed = page && placement != Placement::AsAsked;
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
    const int result = fails(kMlock) ? -1 : 0;
    recordLock(kMlock, memory, length, result);
    return result;
}

int __wrap_munlock(const void* memory, size_t length) {
    const int result = fails(kMunlock) ? -1 : 0;
    recordLock(kMunlock, memory, length, result);
    return result;
}

int __wrap_munlockall() {
    ++counts[kMunlockall];
    recordLock(kMunlockall, nullptr, 0, 0);
    return 0;
}

int __wrap_madvise(void* memory, size_t length, int advice) {
    ++counts[kMadvise];
    __real_madvise(memory, length, advice);
    errno = EINVAL;  // whatever comes of advice, nobody may notice
    return -1;
}

}  // extern "C"
