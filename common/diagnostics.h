// How every module reports: the status slot, failed system calls, traces and log messages. Modules
// write no message and store no status but through this file.
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

/// Another thread may turn tracing on or off at any time.
inline bool tracing() noexcept {
    return __atomic_load_n(__qlxlog_trace_location(), __ATOMIC_RELAXED) != 0;
}

/// Puts errno and the slot back at its end: for calls that may disturb them but must not be seen
/// to.
class ErrorsKept {
  public:
    ErrorsKept() noexcept : errno_(errno), status_(statusSlot()) {}
    ~ErrorsKept() {
        errno = errno_;
        statusSlot() = status_;
    }
    ErrorsKept(const ErrorsKept&) = delete;
    ErrorsKept& operator=(const ErrorsKept&) = delete;

  private:
    int errno_;
    uint32_t status_;
};

/// The status of the system call that has just failed, stored in the slot. errno stays for the
/// message that follows.
inline uint32_t storeSystemError(const char* function, const char* sourceFile,
                                 int line = __builtin_LINE()) noexcept {
    uint32_t status = 0;
    {
        const ErrorsKept kept;
        status = _crMapError(function, sourceFile, line);
    }
    return storeStatus(status);
}

}  // namespace kspool

// Messages are macros, so that the arguments of one that is not written are not computed either and
// the compiler checks each against its format. They leave errno and the slot as they were; an
// argument may still read both.
#define KS_MESSAGE_(call, ...)          \
    do {                                \
        const kspool::ErrorsKept kept_; \
        call(__VA_ARGS__);              \
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
