// Records of backup images. Each operation is one request; operations differ in their parameters,
// their row in the table of operations and the checks of their arguments.
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "mb/mb_request.h"

namespace kspool {
namespace {

uint32_t checkImage(const MBSession* session, uint32_t dsid) {
    if (dsid == 0) return storeStatus(CR_STATUS_INVALID_PARAMETER);
    return session == nullptr ? CR_STATUS_NULL_HANDLE : CR_STATUS_OK;
}

/// Copies an answer for the caller. `*output` is left alone when there is no answer, and NULL when
/// memory is short.
uint32_t copyAnswer(const char* answer, char** output) {
    if (answer == nullptr) return CR_STATUS_REMOTE_ERROR;
    *output = strdup(answer);
    return *output != nullptr ? CR_STATUS_OK : CR_STATUS_NO_MEMORY;
}

/// Reads the fields of an answer, four numbers and a text, each ended by a semicolon, until a field
/// is empty or the answer ends; the rest is ignored. A field that is longer than `retentionText` is
/// split there, and the next character skipped as if it were the separator. The end of the answer
/// is checked before the separator is skipped, because the last field may lack one.
void readRetention(const char* text, MBImageRetentionInfo* info) {
    int64_t* const numbers[] = {&info->retentionValue1, &info->retentionValue2,
                                &info->retentionValue3, &info->retentionValue4};
    char field[sizeof info->retentionText];
    for (size_t i = 0; i <= std::size(numbers); ++i) {
        size_t length = 0;
        while (length < sizeof field - 1 && text[length] != ';' && text[length] != '\0')
            ++length;
        if (length == 0) return;
        memcpy(field, text, length);
        field[length] = '\0';
        if (i < std::size(numbers)) {
            *numbers[i] = leadingNumber(field);
        } else {
            memcpy(info->retentionText, field, length + 1);
        }
        text += length;
        if (*text == '\0') return;
        ++text;
    }
}

}  // namespace
}  // namespace kspool

using namespace kspool;

uint32_t MBSetLastImageV2(MBSession* session, uint32_t dsid, const char* client, const char* policy,
                          int32_t parentid, uint64_t datetime, const char* imagename,
                          int32_t flags) noexcept {
    if (const uint32_t bad = checkImage(session, dsid)) return bad;
    Answer answer;
    const uint32_t status = carryOut(*session, Op::kSetLastImageV2, answer, "dsid", dsid, "client",
                                     client, "policy", policy, "parentid", parentid, "datetime",
                                     datetime, "imagename", imagename, "flags", flags);
    if (status != CR_STATUS_OK) {
        KS_ERROR(status,
                 "%s dsid=%u datetime=%luclient=%s policy=%s imagename=%s flags=%d failed (%s).",
                 "MBSetLastImageV2", dsid, static_cast<unsigned long>(datetime), client, policy,
                 imagename, flags, CRStatusToStringA(status));
    }
    return status;
}

uint32_t MBSetLastImage(MBSession* session, uint32_t dsid, const char* client, const char* policy,
                        uint64_t datetime, const char* dofp, uint64_t, uint64_t dcid,
                        int32_t flags) noexcept {
    if (const uint32_t bad = checkImage(session, dsid)) return bad;
    Answer answer;
    const uint32_t status =
        carryOut(*session, Op::kSetLastImage, answer, "dsid", dsid, "client", client, "policy",
                 policy, "datetime", datetime, "dofp", dofp, "dcid", dcid, "flags", flags);
    if (status != CR_STATUS_OK) {
        KS_ERROR(status,
                 "%s dsid=%u datetime=%lu client=%s policy=%s dofp=%s dcid=%lu flags=%d failed "
                 "(%s).",
                 "MBSetLastImage", dsid, static_cast<unsigned long>(datetime), client, policy, dofp,
                 static_cast<unsigned long>(dcid), flags, CRStatusToStringA(status));
    }
    return status;
}

uint32_t MBGetLastImages(MBSession* session, uint32_t dsid, const char* client, const char* policy,
                         int32_t parentid, uint64_t datetime, char** answer) noexcept {
    if (const uint32_t bad = checkArgumentsAsHandles(session, answer)) return bad;
    const Operation& op = operation(Op::kGetLastImages);
    Answer received;
    const uint32_t sent = WSRequestExt(
        session->transport, op.service, &received, "action", op.action, "dsid", dsid, "client",
        client, "policy", policy, "parentid", parentid, "datetime", datetime, kEndOfParameters);
    uint32_t status = conclude(*session, op, received, sent);
    if (sent != CR_STATUS_OK) return status;
    *answer = nullptr;
    if (status != CR_STATUS_OK) return status;
    status = copyAnswer(received.data, answer);
    return status == CR_STATUS_OK ? status : storeStatus(status);
}

uint32_t MBDeleteImage(MBSession* session, uint32_t dsid, const char* client, const char* policy,
                       const char* imagename, int32_t flags) noexcept {
    const char* appname = OSGetProcName(0);
    if (session == nullptr) return CR_STATUS_NULL_HANDLE;
    Answer answer;
    return carryOut(*session, Op::kDeleteImage, answer, "dsid", dsid, "client", client, "policy",
                    policy, "imagename", imagename, "appname", appname, "flags", flags);
}

uint32_t MBSetImageRetention(MBSession* session, uint32_t dsid, const char* client,
                             const char* policy, const char* imagename, int32_t flags,
                             int64_t wormflags, int64_t retention) noexcept {
    if (const uint32_t bad = checkArgumentsAsHandles(session, client, policy, imagename))
        return bad;
    Answer answer;
    return carryOut(*session, Op::kSetImageRetention, answer, "dsid", dsid, "client", client,
                    "policy", policy, "imagename", imagename, "flags", flags, "wormflags",
                    wormflags, "retention", retention);
}

uint32_t MBGetImageRetention(MBSession* session, uint32_t dsid, const char* client,
                             const char* policy, const char* imagename,
                             MBImageRetentionInfo* info) noexcept {
    if (const uint32_t bad = checkArgumentsAsHandles(session, client, policy, imagename, info))
        return bad;
    Answer answer;
    const uint32_t status = carryOut(*session, Op::kGetImageRetention, answer, "dsid", dsid,
                                     "client", client, "policy", policy, "imagename", imagename);
    if (status != CR_STATUS_OK) return status;
    if (answer.data == nullptr) return CR_STATUS_REMOTE_ERROR;
    readRetention(answer.data, info);
    return CR_STATUS_OK;
}

uint32_t MBFindImagePolicy(MBSession* session, uint32_t dsid, const char* client,
                           const char* imagename, char** policy) noexcept {
    if (const uint32_t bad = checkArgumentsAsHandles(session, client, imagename, policy))
        return bad;
    Answer answer;
    const uint32_t status = carryOut(*session, Op::kFindImagePolicy, answer, "dsid", dsid, "client",
                                     client, "imagename", imagename);
    if (status != CR_STATUS_OK) return status;
    return copyAnswer(answer.data, policy);
}
