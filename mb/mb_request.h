// What all operations share: one request, what the server said of it, and the status that follows.
#ifndef MB_MB_REQUEST_H
#define MB_MB_REQUEST_H

#include "mb/mb_int.h"

namespace kspool {

/// What is said of a request that brought no answer.
enum class OnFailure : uint8_t { kNothing, kTrace, kError };

/// Whether an answer's text is traced, and under which name.
enum class TraceAnswer : uint8_t { kNever, kAlways, kAlwaysSpa, kIfNoEvent };

/// What a server's event becomes.
enum class OnEvent : uint8_t {
    kReport,            ///< reported; 106 for a permission, else 4
    kReportEvenIfDead,  ///< the same, also when the transport failed
    kCode,              ///< the event's code is the status
};

/// What one operation is, apart from its parameters.
struct Operation {
    const char* name;
    const char* action;
    const char* requestedAction;  ///< how the report of a remote error calls it
    const char* fatalText;        ///< NULL: no fatal error is recorded
    uint32_t fatalId;
    WSService service;
    OnFailure onFailure;
    TraceAnswer traceAnswer;
    OnEvent onEvent;
    bool storesStatus;  ///< a status that is not 0 goes to the slot
};

/// Frees an answer's text unless it was handed on.
class Answer : public WSResult {
  public:
    Answer() noexcept : WSResult{} {}
    ~Answer();
    Answer(const Answer&) = delete;
    Answer& operator=(const Answer&) = delete;

    /// The text, which is the taker's from now on.
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

/// The status of an operation after its request, with the reports that go with it.
uint32_t conclude(const MBSession& session, const Operation& op, const WSResult& result,
                  uint32_t transportStatus) noexcept;

/// Carries an operation out. Each value is passed in exactly the width that its parameter has.
template <typename... Parameters>
uint32_t carryOut(const MBSession& session, Op which, WSResult& result,
                  Parameters... parameters) noexcept {
    const Operation& op = operation(which);
    const uint32_t status = WSRequestExt(session.transport, op.service, &result, "action",
                                         op.action, parameters..., kEndOfParameters);
    return conclude(session, op, result, status);
}

/// The status for arguments that cannot be used, 0 for those that can.
template <typename... Pointers>
uint32_t checkArguments(const MBSession* session, Pointers... required) {
    if (session == nullptr) return CR_STATUS_NULL_HANDLE;
    const bool complete = (... && (required != nullptr));
    return complete ? CR_STATUS_OK : CR_STATUS_INVALID_PARAMETER;
}

/// For these operations a missing argument of any kind counts as a missing handle.
template <typename... Pointers>
uint32_t checkAll(const MBSession* session, Pointers... required) {
    const bool complete = session != nullptr && (... && (required != nullptr));
    return complete ? CR_STATUS_OK : CR_STATUS_NULL_HANDLE;
}

}  // namespace kspool

#endif
