#include "mb/mb_request.h"

#include <cstring>

namespace kspool {
namespace {

// clang-format off
constexpr Operation kOperations[] = {
    // name          service              action     requested  id  fatal error                                     failure response
    {"MBDirCreate",  WS_SERVICE_METABASE, "mkdir",   "mkdir",   39, "Failed to complete mkdir webservice (%s)",     false, false},
    {"MBFileCopy",   WS_SERVICE_METABASE, "copy",    "copy",    40, "Failed to complete copy webservice (%s)",      false, false},
    {"MBFileMove",   WS_SERVICE_METABASE, "move",    "move",    41, "Failed to complete move webservice (%s)",      false, false},
    {"MBFileDelete", WS_SERVICE_METABASE, "delete",  "delete",  42, "Failed to complete delete webservice (%s)",    false, false},
    {"MBDirList",    WS_SERVICE_METABASE, "dir",     "dir",     43, "Failed to complete dir webservice (%s)",       false, false},
    {"MBGetTime",    WS_SERVICE_METABASE, "gettime", "gettime", 44, "Failed to complete gettime webservice (%s)",   true,  true},
};
// clang-format on

const char* orElse(const char* text, const char* otherwise) {
    return text != nullptr ? text : otherwise;
}

/// Reports what the server said, and returns the status that it comes to.
uint32_t remoteError(const MBSession& session, const Operation& op, const WSResult& result) {
    KS_ERROR(result.eventCode,
             "The requested action could not be completed due to an unexpected error on a remote "
             "system.\n"
             "Please use the following information to determine the exact cause of this error.\n"
             "\n"
             "Requested action  : %s\n"
             "Server address    : %s\n"
             "Source Application: %s\n"
             "Event Severity    : %s\n"
             "Event code        : %i\n"
             "Event Description : %s\n",
             op.requestedAction, orElse(result.serverAddress, session.config.mbsUrl),
             orElse(result.sourceApplication, "(unknown)"), orElse(result.severity, "(unknown)"),
             static_cast<int>(result.eventCode), orElse(result.description, "(unknown error)"));
    KS_FATAL(op.name, op.fatalId, op.fatalText, orElse(result.description, "unknown error"));
    const bool permission =
        result.description != nullptr && strcasestr(result.description, "permission") != nullptr;
    return permission ? CR_STATUS_PERMISSION_DENIED : CR_STATUS_REMOTE_ERROR;
}

}  // namespace

const Operation& operation(Op op) noexcept {
    return kOperations[static_cast<size_t>(op)];
}

uint32_t conclude(const MBSession& session, const Operation& op, const WSResult& result,
                  uint32_t transportStatus) noexcept {
    if (transportStatus != CR_STATUS_OK) {
        if (op.tracesFailure) {
            KS_TRACE("%s: status of WSRequestExt: %d %s", op.name,
                     static_cast<int>(transportStatus), CRStatusToStringA(transportStatus));
        }
        return transportStatus;
    }
    if (op.tracesResponse) KS_TRACE("MB Response: result.data : %s", result.data);
    return result.eventCode == 0 ? uint32_t{CR_STATUS_OK} : remoteError(session, op, result);
}

}  // namespace kspool
