// How every module reports: the status slot, failed system calls, traces and log messages. The
// library stores statuses and writes messages only through this file, so that the slot rule is kept
// in one place: a message leaves errno and the slot unchanged.
//
// Thread rule: any thread; errno and the slot are the calling thread's own.
#ifndef COMMON_DIAGNOSTICS_H
#define COMMON_DIAGNOSTICS_H

#include <cerrno>
#include <cstdint>

#include "cr_status.h"
#include "platform/status.h"
#include "platform/support.h"

namespace kspool {

inline uint32_t& statusSlot() noexcept {
    return *__cr_errno_location();
}

/// Stores a status in the slot and returns it.
inline uint32_t storeStatus(uint32_t status) noexcept {
    statusSlot() = status;
    return status;
}

/// A relaxed atomic load: another thread may switch tracing at any time, and no other data depends
/// on the switch.
inline bool tracing() noexcept {
    return __atomic_load_n(__qlxlog_trace_location(), __ATOMIC_RELAXED) != 0;
}

/// Restores errno and the status slot on destruction: for calls that may change them, inside
/// functions whose contract leaves them alone.
class ErrnoAndSlotGuard {
  public:
    ErrnoAndSlotGuard() noexcept : errno_(errno), status_(statusSlot()) {}
    ~ErrnoAndSlotGuard() {
        errno = errno_;
        statusSlot() = status_;
    }
    ErrnoAndSlotGuard(const ErrnoAndSlotGuard&) = delete;
    ErrnoAndSlotGuard& operator=(const ErrnoAndSlotGuard&) = delete;

  private:
    int errno_;
    uint32_t status_;
};

/// Maps errno of the system call that has just failed to a status, and stores it in the slot. errno
/// stays as it is, for the message that follows.
inline uint32_t storeSystemError(const char* function, const char* sourceFile,
                                 int line = __builtin_LINE()) noexcept {
    uint32_t status = 0;
    {
        const ErrnoAndSlotGuard kept;
        status = _crMapError(function, sourceFile, line);
    }
    return storeStatus(status);
}

}  // namespace kspool

// Messages are macros, so that the arguments of a trace are not evaluated while tracing is off, and
// the compiler checks the arguments against the format. Messages leave errno and the slot
// unchanged; their arguments may read both.
#define KS_MESSAGE_(call, ...)                 \
    do {                                       \
        const kspool::ErrnoAndSlotGuard kept_; \
        call(__VA_ARGS__);                     \
    } while (false)

#define KS_ERROR(status, ...) KS_MESSAGE_(ErrorA, status, __VA_ARGS__)
#define KS_WARNING(status, ...) KS_MESSAGE_(WarningA, status, __VA_ARGS__)
#define KS_NOTICE(status, ...) KS_MESSAGE_(NoticeA, status, __VA_ARGS__)
#define KS_INFO(status, ...) KS_MESSAGE_(InfoA, status, __VA_ARGS__)
#define KS_LOG(status, level, ...) KS_MESSAGE_(qlxLogA, status, level, __VA_ARGS__)
#define KS_FATAL(function, id, ...) KS_MESSAGE_(qlxSetFatalError, function, id, __VA_ARGS__)
#define KS_TRACE(...)                                              \
    do {                                                           \
        if (kspool::tracing()) KS_MESSAGE_(__TraceA, __VA_ARGS__); \
    } while (false)

#endif
