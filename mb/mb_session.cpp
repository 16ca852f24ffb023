// The life of a session after its creation: keep-alive, time-outs, teardown.
#include <algorithm>
#include <cstdlib>
#include <ctime>

#include "common/secret.h"
#include "mb/mb_request.h"

using namespace kspool;

void MBSessionTeardown(MBSession* session) noexcept {
    session->state |= MB_STATE_CLOSING;
    POReset(&session->scratchPO);
    if (session->transport != nullptr) WSShutdown(session->transport);
    { const ScopedWipe wiped(*session); }
    free(session);
}

void MBShutdown(MBSession* session) noexcept {
    if (session != nullptr) MBSessionTeardown(session);
}

uint32_t MBKeepAlive(MBSession* session, int32_t interval) noexcept {
    if (session == nullptr) return CR_STATUS_NULL_HANDLE;
    const int64_t idle = time(nullptr) - WSGetLastUseTime(session->transport);
    if (idle < interval) return CR_STATUS_OK;
    KS_INFO(0xFFFFFFFF, "%s: performing tarnd keep alive", "MBKeepAlive");
    Answer answer;
    uint32_t status = WSRequestExt(session->transport, WS_SERVICE_KEEPALIVE, &answer, "action",
                                   "discover", kEndOfParameters);
    if (status == CR_STATUS_OK) status = answer.eventCode;
    return status == CR_STATUS_OK ? status : storeStatus(status);
}

uint32_t MBSetResponseTimeOut(MBSession* session, int32_t seconds) noexcept {
    if (session == nullptr) return CR_STATUS_NULL_HANDLE;
    return WSSetOptVa(session->transport, uint32_t{WS_OPT_RESPONSE_TIMEOUT}, int64_t{seconds},
                      uint32_t{0});
}

uint32_t MBGetResponseTimeOut(const MBSession* session, int32_t* seconds) noexcept {
    if (const uint32_t bad = checkArguments(session, seconds)) return bad;
    *seconds = static_cast<int32_t>(
        std::clamp<int64_t>(WSGetResponseTimeout(session->transport), INT32_MIN, INT32_MAX));
    return CR_STATUS_OK;
}

uint32_t MBEnableResiliency(MBSession* session, int32_t seconds) noexcept {
    if (session == nullptr) return CR_STATUS_NULL_HANDLE;
    const int64_t current = WSGetReconnectTimeout(session->transport);
    if (current != 0) return static_cast<uint32_t>(current);
    return WSSetOptVa(session->transport, uint32_t{WS_OPT_RECONNECT_TIMEOUT}, int64_t{seconds},
                      uint32_t{0});
}
