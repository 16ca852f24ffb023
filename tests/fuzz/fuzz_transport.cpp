#include "tests/fuzz/fuzz_transport.h"

#include "platform/status.h"

struct WSTransport {
    int64_t responseTimeout = 30;
};

WSTransport* WSInit(int, int, int, int, int) noexcept {
    return new WSTransport;
}

void WSShutdown(WSTransport* transport) noexcept {
    delete transport;
}

uint32_t WSSetOpt(WSTransport*, const WSOption*, uint32_t) noexcept {
    return fuzz::setStatus;
}

uint32_t WSSetOptVa(WSTransport*, ...) noexcept {
    return fuzz::setStatus;
}

uint32_t WSRequestExt(WSTransport*, uint32_t, WSResult* result, ...) noexcept {
    return fuzz::onRequest(*result);
}

uint32_t WSRequestPOST(WSTransport*, uint32_t, WSResult* result, uint32_t, const char*,
                       const char*) noexcept {
    return fuzz::onRequest(*result);
}

int64_t WSGetLastUseTime(const WSTransport*) noexcept {
    return 0;
}

int64_t WSGetReconnectTimeout(const WSTransport*) noexcept {
    return 0;
}

int64_t WSGetResponseTimeout(const WSTransport* transport) noexcept {
    return transport->responseTimeout;
}

uint32_t WSArchMode(WSTransport*) noexcept {
    if (fuzz::archMode == UINT32_MAX) *__cr_errno_location() = WS_STATUS_NO_CONNECT;
    return fuzz::archMode;
}
