// The ways to create a session. All end in MBCreateWithAgentCfg().
#include <cstdarg>
#include <cstdlib>

#include "common/option_table.h"
#include "mb/mb_int.h"

namespace kspool {
namespace {

MBSession* allocateSession() {
    auto* session = static_cast<MBSession*>(calloc(1, sizeof(MBSession)));
    if (session == nullptr) {
        const uint32_t status = storeSystemError("_mbCreateWithAgentCfg", kMbSource);
        KS_ERROR(status, "Metabase initialization failed: could not allocate %u bytes (%s)",
                 static_cast<unsigned>(sizeof(MBSession)), CRStatusToStringA(status));
    }
    return session;
}

/// Tears down an incomplete session. The teardown may change the slot, so the reason is stored
/// afterwards.
MBSession* giveUp(MBSession* session, uint32_t status) {
    MBSessionTeardown(session);
    storeStatus(status);
    return nullptr;
}

/// Reads the pairs of a variadic option list. False for an invalid list: for an unknown code, the
/// type of the value is unknown too, so the rest of the list cannot be read.
bool readPairs(va_list& pairs, KSOption (&options)[kMaxVaOptions], uint32_t& count) {
    for (count = 0;; ++count) {
        const auto code = va_arg(pairs, uint32_t);
        const VaValue value = optionRow(code).vaValue;
        if (value == VaValue::kEndsList) return true;
        if (value == VaValue::kRefused || count == kMaxVaOptions) return false;
        options[count].code = code;
        options[count].value.number =
            value == VaValue::kWord64 ? va_arg(pairs, uint64_t) : uint64_t{va_arg(pairs, uint32_t)};
    }
}

}  // namespace
}  // namespace kspool

using namespace kspool;

MBSession* MBCreateWithAgentCfg(uint32_t callerWord, const KSOption* options, uint32_t count,
                                const char* agentCfgPath) noexcept {
    MBSession* session = allocateSession();
    if (session == nullptr) return nullptr;
    session->callerWord = callerWord;
    KSConfigInitWithAgentCfg(&session->config, agentCfgPath);
    if (session->config.applicationName[0] == '\0') {
        free(session);
        return nullptr;
    }
    session->transport = WSInit(0, 0, 0, 0, 0);
    if (session->transport == nullptr) {
        const uint32_t status = statusSlot();
        KS_ERROR(status, "Metabase initialization failed: could not initialize webservices (%s)",
                 CRStatusToStringA(status));
        return giveUp(session, status);
    }
    WSSetOptVa(session->transport, uint32_t{WS_OPT_RECONNECT_TIMEOUT},
               session->config.reconnectTimeout, uint32_t{0});
    const uint32_t status = MBOptionsSet(session, options, count);
    return status == CR_STATUS_OK ? session : giveUp(session, status);
}

MBSession* MBCreate(uint32_t callerWord, const KSOption* options, uint32_t count) noexcept {
    return MBCreateWithAgentCfg(callerWord, options, count, nullptr);
}

MBSession* MBCreateVa(uint32_t callerWord, ...) noexcept {
    KSOption options[kMaxVaOptions];
    uint32_t count = 0;
    va_list pairs;
    va_start(pairs, callerWord);
    const bool accepted = readPairs(pairs, options, count);
    va_end(pairs);
    return accepted ? MBCreate(callerWord, options, count) : nullptr;
}

MBSession* MBInitWithAgentCfg(const char* mbsUrl, uint32_t callerWord, const char* login,
                              const char* password, const char* agentCfgPath) noexcept {
    const struct {
        uint32_t code;
        const char* text;
    } given[] = {{KS_OPT_MBS_URL, mbsUrl}, {KS_OPT_LOGIN, login}, {KS_OPT_PASSWORD, password}};
    KSOption options[3];
    uint32_t count = 0;
    for (const auto& option : given) {
        if (option.text == nullptr) continue;
        options[count].code = option.code;
        options[count++].value.text = option.text;
    }
    return MBCreateWithAgentCfg(callerWord, options, count, agentCfgPath);
}

MBSession* MBInit(const char* mbsUrl, uint32_t callerWord, const char* login,
                  const char* password) noexcept {
    return MBInitWithAgentCfg(mbsUrl, callerWord, login, password, nullptr);
}
