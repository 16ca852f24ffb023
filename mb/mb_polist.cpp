// Lists of POs, sent to the server as one text.
#include <cstring>

#include "mb/mb_request.h"

namespace kspool {
namespace {

/// Answers begin with a line of field names; this is the first of them.
constexpr char kFirstName[] = "dsid|";

uint32_t checkList(const MBSession* session, const char* pos) {
    if (session == nullptr) return CR_STATUS_NULL_HANDLE;
    return pos == nullptr || *pos == '\0' ? CR_STATUS_INVALID_PARAMETER : CR_STATUS_OK;
}

/// Checks that the answer to a successful operation, if it has a text, begins with field names.
uint32_t checkNames(uint32_t status, const WSResult& result, const char* missingNames) {
    if (status != CR_STATUS_OK || result.data == nullptr) return status;
    if (strncmp(result.data, kFirstName, sizeof kFirstName - 1) == 0) return status;
    KS_ERROR(CR_STATUS_BAD_RESPONSE, missingNames, result.data);
    return CR_STATUS_BAD_RESPONSE;
}

uint32_t postList(MBSession* session, Op which, uint32_t dataselection, const char* pos,
                  const char* missingNames) {
    if (const uint32_t bad = checkList(session, pos)) return bad;
    const Operation& op = operation(which);
    Answer answer;
    const uint32_t status =
        WSRequestPOST(session->transport, op.service, &answer, dataselection, pos, op.action);
    return checkNames(conclude(*session, op, answer, status), answer, missingNames);
}

}  // namespace
}  // namespace kspool

using namespace kspool;

uint32_t MBPOImport(MBSession* session, uint32_t dataselection, const char* pos) noexcept {
    if (const uint32_t bad = checkList(session, pos)) return bad;
    Answer answer;
    const uint32_t status =
        carryOut(*session, Op::kPOImport, answer, "dataselection", dataselection, "data", pos);
    return checkNames(status, answer, "Missing field names in import webservice result '%s'");
}

uint32_t MBPOAddList(MBSession* session, uint32_t dataselection, const char* pos) noexcept {
    return postList(session, Op::kPOAddList, dataselection, pos,
                    "Missing field names in addlist webservice result '%s'");
}

uint32_t MBPOZELTAddList(MBSession* session, uint32_t dataselection, const char* pos) noexcept {
    return postList(session, Op::kPOZELTAddList, dataselection, pos,
                    "Missing field names in zeltaddlist webservice result '%s'");
}

uint32_t MBPOExpire(MBSession* session, uint32_t dataselection, const char* pos) noexcept {
    if (const uint32_t bad = checkList(session, pos)) return bad;
    Answer answer;
    return carryOut(*session, Op::kPOExpire, answer, "dataselection", dataselection, "data", pos);
}
