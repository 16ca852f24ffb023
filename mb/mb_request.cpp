// The table of operations, and how the result of a request is reported and turned into a status.
#include "mb/mb_request.h"

#include <cstdlib>

#include "common/ascii.h"

namespace kspool {
namespace {

using F = OnFailure;
using T = TraceAnswer;
using E = OnEvent;

// clang-format off
constexpr Operation kOperations[] = {
    // name                action            requested        fatal error                                           id   service              no answer     answer          event                  slot
    {"MBDirCreate",         "mkdir",          "mkdir",         "Failed to complete mkdir webservice (%s)",           39,  WS_SERVICE_METABASE, F::kNothing,  T::kNever,      E::kReport,            false},
    {"MBFileCopy",          "copy",           "copy",          "Failed to complete copy webservice (%s)",            40,  WS_SERVICE_METABASE, F::kNothing,  T::kNever,      E::kReport,            false},
    {"MBFileMove",          "move",           "move",          "Failed to complete move webservice (%s)",            41,  WS_SERVICE_METABASE, F::kNothing,  T::kNever,      E::kReport,            false},
    {"MBFileDelete",        "delete",         "delete",        "Failed to complete delete webservice (%s)",          42,  WS_SERVICE_METABASE, F::kNothing,  T::kNever,      E::kReport,            false},
    {"MBDirList",           "dir",            "dir",           "Failed to complete dir webservice (%s)",             43,  WS_SERVICE_METABASE, F::kNothing,  T::kNever,      E::kReport,            false},
    {"MBGetTime",           "gettime",        "gettime",       "Failed to complete gettime webservice (%s)",         44,  WS_SERVICE_METABASE, F::kTrace,    T::kAlways,     E::kReport,            false},
    {"MBPOImport",          "import",         "PO import",     "Failed to complete PO import webservice (%s)",       35,  WS_SERVICE_METABASE, F::kTrace,    T::kAlways,     E::kReport,            false},
    {"MBPOAddList",         "addlist",        "PO addlist",    "Failed to complete PO addlist webservice (%s)",      36,  WS_SERVICE_METABASE, F::kError,    T::kAlways,     E::kReport,            false},
    {"MBPOZELTAddList",     "zeltaddlist",    "PO zeltaddlist","Failed to complete PO zeltaddlist webservice (%s)",  37,  WS_SERVICE_METABASE, F::kError,    T::kAlways,     E::kReport,            false},
    {"MBPOExpire",          "expire",         "PO expire",     "Failed to complete PO expire webservice (%s)",       38,  WS_SERVICE_METABASE, F::kNothing,  T::kNever,      E::kReportEvenIfDead,  false},
    {"MBSetLastImageV2",    "setlastimage",   nullptr,         nullptr,                                              0,   WS_SERVICE_METABASE, F::kTrace,    T::kNever,      E::kCode,              true},
    {"MBSetLastImage",      "setlastimage",   nullptr,         "Failed to complete setlastimage webservice (%s)",    45,  WS_SERVICE_METABASE, F::kTrace,    T::kNever,      E::kCode,              true},
    {"MBGetLastImages",     "getlastimage",   nullptr,         "Failed to complete getlastimage webservice (%s)",    46,  WS_SERVICE_METABASE, F::kTrace,    T::kAlwaysSpa,  E::kCode,              true},
    {"MBDeleteImage",       "deleteimage",    nullptr,         "Failed to complete deleteimage webservice (%s)",     47,  WS_SERVICE_METABASE, F::kTrace,    T::kNever,      E::kCode,              true},
    {"MBSetImageRetention", "setimgretention",nullptr,         "Failed to complete setretention webservice (%s)",    117, WS_SERVICE_METABASE, F::kTrace,    T::kNever,      E::kCode,              true},
    {"MBGetImageRetention", "getimgretention",nullptr,         "Failed to complete getretention webservice (%s)",    118, WS_SERVICE_METABASE, F::kTrace,    T::kIfNoEvent,  E::kCode,              false},
    {"MBFindImagePolicy",   "findpolicy",     nullptr,         "Failed to complete findpolicy webservice (%s)",      118, WS_SERVICE_METABASE, F::kTrace,    T::kIfNoEvent,  E::kCode,              false},
    {"MBGetHVXTag",         "getHVXTag",      "get HVX Tag",   "Failed to complete get HVX Tag webservice (%s)",     63,  WS_SERVICE_SPA,      F::kNothing,  T::kNever,      E::kReport,            false},
};
// clang-format on

const char* orElse(const char* text, const char* otherwise) {
    return text != nullptr ? text : otherwise;
}

/// Logs an event, and returns its status. Event codes are server-specific, so a lack of permission
/// is recognised by the word "permission" in the description.
uint32_t reportEvent(const MBSession& session, const Operation& op, const WSResult& result) {
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
    const bool permission = contains(orElse(result.description, ""), "permission");
    return permission ? CR_STATUS_PERMISSION_DENIED : CR_STATUS_REMOTE_ERROR;
}

void reportFailure(const Operation& op, uint32_t status) {
    if (op.onFailure == OnFailure::kTrace) {
        KS_TRACE("%s: status of WSRequestExt: %d %s", op.name, static_cast<int>(status),
                 CRStatusToStringA(status));
    }
    if (op.onFailure == OnFailure::kError) {
        KS_ERROR(status, "%s: WSRequestPOST failed: %s (%d)", op.name, CRStatusToStringA(status),
                 static_cast<int>(status));
    }
}

void traceAnswer(const Operation& op, const WSResult& result) {
    if (op.traceAnswer == TraceAnswer::kNever) return;
    if (op.traceAnswer == TraceAnswer::kIfNoEvent && result.eventCode != 0) return;
    if (op.traceAnswer == TraceAnswer::kAlwaysSpa) {
        KS_TRACE("SPA Response: result.data : %s", result.data);
    } else {
        KS_TRACE("MB Response: result.data : %s", result.data);
    }
}

uint32_t eventStatus(const MBSession& session, const Operation& op, const WSResult& result) {
    const bool isCode = op.onEvent == OnEvent::kCode;
    const uint32_t status = isCode ? result.eventCode : reportEvent(session, op, result);
    if (op.fatalText != nullptr) {
        KS_FATAL(op.name, op.fatalId, op.fatalText, orElse(result.description, "unknown error"));
    }
    return status;
}

uint32_t statusOf(const MBSession& session, const Operation& op, const WSResult& result,
                  uint32_t transportStatus) {
    const bool hasEvent = result.eventCode != 0;
    const bool counts = op.onEvent == OnEvent::kReportEvenIfDead && hasEvent;
    if (transportStatus != CR_STATUS_OK && !counts) {
        reportFailure(op, transportStatus);
        return transportStatus;
    }
    traceAnswer(op, result);
    return hasEvent ? eventStatus(session, op, result) : uint32_t{CR_STATUS_OK};
}

}  // namespace

Answer::~Answer() {
    free(data);
}

const Operation& operation(Op op) noexcept {
    return kOperations[static_cast<size_t>(op)];
}

uint32_t conclude(const MBSession& session, const Operation& op, const WSResult& result,
                  uint32_t transportStatus) noexcept {
    const uint32_t status = statusOf(session, op, result, transportStatus);
    if (status != CR_STATUS_OK && op.storesStatus) storeStatus(status);
    return status;
}

}  // namespace kspool
