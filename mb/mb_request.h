// The common path of all operations: one request, the reports about its result, one status.
#ifndef MB_MB_REQUEST_H
#define MB_MB_REQUEST_H

#include "mb/mb_int.h"

namespace kspool {

/// How a request without an answer is reported.
enum class OnFailure : uint8_t { kNothing, kTrace, kError };

/// When an answer's text is traced, and under which name.
enum class TraceAnswer : uint8_t { kNever, kAlways, kAlwaysSpa, kIfNoEvent };

/// How a server's event is reported, and the status that it becomes.
enum class OnEvent : uint8_t {
    kReport,            ///< reported; 106 for a permission, else 4
    kReportEvenIfDead,  ///< the same, even if the transport reported a failure
    kCode,              ///< not reported; the event's code is the status
};

/// One operation, without its parameters: where it is sent, and how its result is reported. All
/// differences between operations are columns of this table, so that conclude() has no special
/// cases.
struct Operation {
    const char* name;
    const char* action;
    const char* requestedAction;  ///< its name in the report of a remote error
    const char* fatalText;        ///< NULL: no fatal error is recorded
    uint32_t fatalId;
    WSService service;
    OnFailure onFailure;
    TraceAnswer traceAnswer;
    OnEvent onEvent;
    bool storesStatus;  ///< a status that is not 0 goes to the slot
};

/// A result that frees the answer's text unless the caller has taken it.
class Answer : public WSResult {
  public:
    Answer() noexcept : WSResult{} {}
    ~Answer();
    Answer(const Answer&) = delete;
    Answer& operator=(const Answer&) = delete;

    /// Gives up ownership of the text: the caller frees it.
    char* takeData() noexcept {
        char* taken = data;
        data = nullptr;
        return taken;
    }
};

/// The operations, in the order of the rows of their table.
enum class Op : uint8_t {
    kDirCreate,
    kFileCopy,
    kFileMove,
    kFileDelete,
    kDirList,
    kGetTime,
    kPOImport,
    kPOAddList,
    kPOZELTAddList,
    kPOExpire,
    kSetLastImageV2,
    kSetLastImage,
    kGetLastImages,
    kDeleteImage,
    kSetImageRetention,
    kGetImageRetention,
    kFindImagePolicy,
    kGetHVXTag,
};

const Operation& operation(Op op) noexcept;

/// Reports the result of a request as the operation's row says. Returns the operation's status.
uint32_t conclude(const MBSession& session, const Operation& op, const WSResult& result,
                  uint32_t transportStatus) noexcept;

/// Carries out an operation. The transport reads each variadic value with the type of the parameter
/// named before it, so the argument must have exactly that width: an int passed for an int64_t
/// would be read with garbage in its upper half.
template <typename... Parameters>
uint32_t carryOut(const MBSession& session, Op which, WSResult& result,
                  Parameters... parameters) noexcept {
    const Operation& op = operation(which);
    const uint32_t status = WSRequestExt(session.transport, op.service, &result, "action",
                                         op.action, parameters..., kEndOfParameters);
    return conclude(session, op, result, status);
}

/// Checks a session and required arguments: 44 without a session, 9 for a missing argument, else 0.
template <typename... Pointers>
uint32_t checkArguments(const MBSession* session, Pointers... required) {
    if (session == nullptr) return CR_STATUS_NULL_HANDLE;
    const bool complete = (... && (required != nullptr));
    return complete ? CR_STATUS_OK : CR_STATUS_INVALID_PARAMETER;
}

/// The same for operations that return 44 for a missing argument too.
template <typename... Pointers>
uint32_t checkArgumentsAsHandles(const MBSession* session, Pointers... required) {
    const bool complete = session != nullptr && (... && (required != nullptr));
    return complete ? CR_STATUS_OK : CR_STATUS_NULL_HANDLE;
}

}  // namespace kspool

#endif
