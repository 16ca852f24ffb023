// What all operations share: one request, what the server said of it, and the status that follows.
#ifndef MB_MB_REQUEST_H
#define MB_MB_REQUEST_H

#include "mb/mb_int.h"

namespace kspool {

/// What one operation is, apart from its parameters.
struct Operation {
    const char* name;
    const char* action;
    const char* requestedAction;  ///< how the report of a remote error calls it
    const char* fatalText;
    uint32_t fatalId;
    WSService service;
    bool tracesFailure;   ///< of the transport
    bool tracesResponse;  ///< whatever the server said
};

/// The operations, in the order of the rows of their table.
enum class Op : uint8_t { DirCreate, FileCopy, FileMove, FileDelete, DirList, GetTime };

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

}  // namespace kspool

#endif
