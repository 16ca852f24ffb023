// The current request, and requests so far. All state is in the transport. Its three calls are weak
// references, so that a platform from before they existed still links.
#include <cerrno>
#include <cstring>

#include "mb/mb_request.h"

#pragma weak WSAbort
#pragma weak WSLastEvent
#pragma weak WSStatistics

namespace kspool {
namespace {

/// A constant, since MBAbort() runs in signal handlers and _crMapError() may write a trace.
constexpr uint32_t kNotOffered = CR_STATUS_SYSTEM_BASE + ENOSYS;

static_assert(offsetof(MBEvent, requestId) == 24 && sizeof(MBEvent) == 64);
static_assert(offsetof(MBStatistics, latencies) == 56 && sizeof(MBStatistics) == 312);
static_assert(int{MB_LATENCIES} == int{WS_LATENCIES});

/// Checks a session, and a record that the caller wants filled.
template <typename Record>
uint32_t checkRecord(const MBSession* session, const Record* record, bool offered) {
    if (const uint32_t bad = checkArguments(session, record)) return bad;
    if (record->size < sizeof *record) return CR_STATUS_INVALID_PARAMETER;
    return offered ? uint32_t{CR_STATUS_OK} : kNotOffered;
}

}  // namespace
}  // namespace kspool

using namespace kspool;

uint32_t MBAbort(MBSession* session) noexcept {
    if (session == nullptr) return CR_STATUS_NULL_HANDLE;
    return WSAbort != nullptr ? WSAbort(session->transport) : kNotOffered;
}

uint32_t MBLastEvent(const MBSession* session, MBEvent* event) noexcept {
    if (const uint32_t bad = checkRecord(session, event, WSLastEvent != nullptr)) return bad;
    WSEventRecord last{};
    WSLastEvent(session->transport, &last);
    *event = {sizeof *event,
              last.eventCode,
              last.httpStatus,
              last.attempts,
              0,
              last.requestId,
              last.severity,
              last.serverAddress,
              last.sourceApplication,
              last.description};
    return CR_STATUS_OK;
}

uint32_t MBGetStatistics(const MBSession* session, MBStatistics* statistics) noexcept {
    if (const uint32_t bad = checkRecord(session, statistics, WSStatistics != nullptr)) return bad;
    WSStatisticsRecord so{};
    WSStatistics(session->transport, &so);
    *statistics = {sizeof *statistics, so.requests,      so.attempts,     so.connections,
                   so.bytesSent,       so.bytesReceived, so.microseconds, {}};
    memcpy(statistics->latencies, so.latencies, sizeof so.latencies);
    return CR_STATUS_OK;
}
