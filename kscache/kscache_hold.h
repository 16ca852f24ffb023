// A held cache file: its path with symbolic links resolved, and the lock that keeps other holders
// out.
//
// Thread rule: threads and, after fork(), processes may share a hold; a Turn belongs to one call.
//
// Invariants:
//  1. The locks are those of an open file description (F_OFD_SETLK): no close() of another
//     descriptor of the process drops one, and two holds of one process exclude each other.
//  2. The lock file is never removed. A process that waits for a removed file's lock would
//     otherwise hold nothing, beside the holder of a new file of that name.
//  3. The lock file has the holder's process id while it is held, and is empty otherwise. Nothing
//     else is ever written to it, and a file with other contents is not taken for one.
//  4. Whoever replaces the file has both bytes of the lock file locked: the first one through the
//     hold, the second through a descriptor of its own, since those who share a hold share its
//     lock.
#ifndef KSCACHE_HOLD_H
#define KSCACHE_HOLD_H

#include <sys/stat.h>

#include "common/owned.h"
#include "kscache/kscache_int.h"

struct KSCacheHold {
    uint32_t magic = 0;
    kspool::OwnedText path;
    kspool::Descriptor lock{-1};
};

namespace kspool {

inline constexpr uint32_t kHoldMagic = 0x401D;

/// A path with symbolic links resolved, so that the file is replaced and not the link. The folder
/// must exist, the file need not. NULL with errno set on failure.
OwnedText resolvedPath(const char* path) noexcept;

/// Two texts as one; NULL with errno set when there is no memory.
OwnedText joined(const char* first, const char* second) noexcept;

/// Stores the status of the system call that has just failed for a cache file, and logs it.
/// `action` completes "could not".
uint32_t reportFailure(const char* function, const char* path, const char* action) noexcept;

/// Stores a status and logs why.
uint32_t refuse(const char* function, const char* path, uint32_t status, const char* why) noexcept;

/// The right to replace a held file, for the time of one replacement.
class Turn {
  public:
    Turn() = default;
    ~Turn();
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

    /// Any status but 0 is in the status slot and was logged: CR_STATUS_BUSY while another call
    /// replaces the file, or when the hold was given back and another holder came.
    uint32_t take(const char* function, const KSCacheHold& hold) noexcept;

  private:
    Descriptor lock_{-1};
};

/// Refuses anything but a missing, an empty or a cache file. `found` is what the system knows of
/// the file, with the mode 0 when it is missing. What is not a regular file is not even opened,
/// since opening a device can have effects.
uint32_t examineFile(const char* function, const char* path, struct stat& found) noexcept;

/// Takes the lock of a cache file for `hold`, which releaseHold() releases. A failure is logged,
/// and its status stored in the slot. A file that examineFile() refuses is refused before its lock
/// file is made.
uint32_t takeHold(const char* function, const char* path, KSCacheHold& hold) noexcept;
void releaseHold(KSCacheHold& hold) noexcept;

}  // namespace kspool

#endif
