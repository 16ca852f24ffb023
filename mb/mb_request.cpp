#include "mb/mb_request.h"

#include <cstring>

namespace kspool {
namespace {

// clang-format off
constexpr Operation kOperations[] = {
    // name          action     requested  fatal error                                   id  service              failure response
    {"MBDirCreate",  "mkdir",   "mkdir",   "Failed to complete mkdir webservice (%s)",   39, WS_SERVICE_METABASE, false, false},
    {"MBFileCopy",   "copy",    "copy",    "Failed to complete copy webservice (%s)",    40, WS_SERVICE_METABASE, false, false},
    {"MBFileMove",   "move",    "move",    "Failed to complete move webservice (%s)",    41, WS_SERVICE_METABASE, false, false},
    {"MBFileDelete", "delete",  "delete",  "Failed to complete delete webservice (%s)",  42, WS_SERVICE_METABASE, false, false},
    {"MBDirList",    "dir",     "dir",     "Failed to complete dir webservice (%s)",     43, WS_SERVICE_METABASE, false, false},
    {"MBGetTime",    "gettime", "gettime", "Failed to complete gettime webservice (%s)", 44, WS_SERVICE_METABASE, true,  true},
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
