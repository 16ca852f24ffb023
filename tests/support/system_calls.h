// The system calls that the library makes, wrapped at link time: counted, failed on demand, placed
// where a test wants them, cut into pieces, and watched for leaks. Locking is recorded with the
// scripted platform and never done, since what a machine lets a process lock differs.
#ifndef TESTS_SYSTEM_CALLS_H
#define TESTS_SYSTEM_CALLS_H

#include <cstddef>
#include <string>

#include "tests/support/failing_calls.h"

namespace calls {

#define ENUMERATOR(call, ...) call,
/// The wrapped calls. Those up to kPlatform fail in turn, kSnprintf and kGetrlimit when they are
/// asked for by name: tests use the one too, and without the other pages lie elsewhere.
enum Call {
    FAILING_CALLS(ENUMERATOR)
        kPlatform,  ///< a call of the scripted platform that can fail, not of the system
    kLastOfAny = kPlatform,
    OTHER_CALLS(ENUMERATOR) kCalls
};
#undef ENUMERATOR

/// The call of a name ("mmap"), or kCalls.
Call callNamed(const std::string& name);

inline constexpr int kAny = kCalls;

/// From now on, the n-th matching call fails, once or with all after it. Page mappings alone count
/// as mmap when `pagesOnly`, not the reservations by which addresses are chosen.
struct Failure {
    int call = kAny;
    size_t nth = 0;  ///< 0: never
    bool fromThenOn = false;
    bool pagesOnly = false;
    int error = 12;
};
void fail(const Failure& failure);

/// Counts a call; true, with errno set, when it is to fail now.
bool failsOnDemand(Call call);

/// How many calls failed on demand since fail().
size_t failures();

/// How often a call was made while watched.
size_t made(Call call);

/// Where page mappings go.
enum class Placement { kAsAsked, kDescending, kScattered, kAtZero };
void place(Placement placement);

/// read() and write() move at most so many bytes, and are interrupted before each.
void cutTransfers(size_t most);

/// From now on, this happens before each lseek() to a place: between the two passes of a load.
void beforeSeeks(void (*happens)());

/// Allocations, mappings and descriptors that are not released.
size_t live();

/// Calls are counted and watched from now on; nothing fails, nothing is placed.
void watch();

/// Calls are what they are without this file.
void leaveAlone();

}  // namespace calls

#endif
