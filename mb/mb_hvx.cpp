// The HVX tag of a data selection.
#include <cstring>

#include "mb/mb_request.h"
#include "platform/net.h"

namespace kspool {
namespace {

/// Reads an answer of one digit, a separator, the URL-encoded tag and one final character. A first
/// character of '0' or less means that there is no tag.
uint32_t readTag(const char* answer, int32_t* digit, char** tag) {
    *digit = static_cast<signed char>(answer[0]) - '0';
    if (*digit <= 0) return CR_STATUS_OK;
    const size_t length = strlen(answer);
    if (length < 3) return CR_STATUS_BAD_HANDLE;
    *tag = strndup(answer + 2, length - 3);
    if (*tag == nullptr) return CR_STATUS_NO_MEMORY;
    URLDecode(*tag);
    return CR_STATUS_OK;
}

}  // namespace
}  // namespace kspool

using namespace kspool;

uint32_t MBGetHVXTag(MBSession* session, uint32_t dataselection, int32_t* digit,
                     char** tag) noexcept {
    if (const uint32_t bad = checkArgumentsAsHandles(session, digit, tag)) {
        KS_ERROR(bad, "%s: invalid parameters.", "MBGetHVXTag");
        return bad;
    }
    *tag = nullptr;
    const Operation& op = operation(Op::kGetHVXTag);
    Answer answer;
    const uint32_t sent = WSRequestExt(session->transport, op.service, &answer, "action", op.action,
                                       "dataselection", dataselection, kEndOfParameters);
    if (sent != CR_STATUS_OK) KS_ERROR(sent, "Failed to get HVX tag from tarnd.");
    const uint32_t status = conclude(*session, op, answer, sent);
    if (status != CR_STATUS_OK) return status;
    if (answer.data == nullptr) {
        KS_FATAL(op.name, op.fatalId,
                 "Failed to complete get HVX Tag webservice, no error, but tag string is NULL");
        return CR_STATUS_REMOTE_ERROR;
    }
    return readTag(answer.data, digit, tag);
}
