// Options of a live session. All changes go to a working copy, which is committed completely or not
// at all. The transport cannot be rolled back, so its options are set last: when they are accepted,
// nothing else can fail. The copy is wiped but never released, because it shares the PO and the
// transport with the session.
#include "common/option_table.h"
#include "common/secret.h"
#include "mb/mb_int.h"

namespace kspool {
namespace {

/// The settings that a refresh passes to the transport: URL, login, password, key location.
constexpr uint32_t kRefreshed = 4;

/// The records of one call, sorted by their consumer.
struct Sorted {
    KSOption forwarded[kMaxForwardedOptions];
    uint32_t forwardedCount;
    WSOption transport[kMaxTransportOptions];
    uint32_t transportCount;
    bool refreshes;  ///< pass the configuration to the transport again
};

uint32_t tooMany(const char* format, uint32_t maximum) {
    KS_LOG(CR_STATUS_LIMIT_EXCEEDED, QLX_LEVEL_ERROR, format, "MBOptionsSet",
           static_cast<int>(maximum));
    return CR_STATUS_LIMIT_EXCEEDED;
}

uint32_t tooManyForwarded() {
    return tooMany("%s: too many KS_OPT arguments supplied, maximum is %i", kMaxForwardedOptions);
}

uint32_t tooManyTransport() {
    return tooMany("%s: too many WS_OPT arguments supplied, maximum is %i", kMaxTransportOptions);
}

WSOption textOption(uint32_t code, const char* text) {
    WSOption option{code, {}};
    option.value.text = text;
    return option;
}

/// Sorts one record by its consumer; a status other than 0 ends the call.
uint32_t sortOne(MBSession& copy, const KSOption& option, Sorted& sorted) {
    const OptionRow& row = optionRow(option.code);
    switch (row.session) {
        case SessionUse::kCrOnly:
            KS_TRACE("%u: CR-only option, ignored", option.code);
            break;
        case SessionUse::kSpOnly:
            KS_TRACE("%u: SP-only option, ignored", option.code);
            break;
        case SessionUse::kIgnored:
            break;
        case SessionUse::kRecorded:
            copy.opt133Value = option.value.number;
            break;
        case SessionUse::kForwarded:
            if (sorted.forwardedCount == kMaxForwardedOptions) return tooManyForwarded();
            sorted.forwarded[sorted.forwardedCount++] = option;
            break;
        case SessionUse::kTransport:
            if (sorted.transportCount == kMaxTransportOptions) return tooManyTransport();
            sorted.transport[sorted.transportCount].code = row.transportCode;
            sorted.transport[sorted.transportCount++].value.number =
                static_cast<int32_t>(option.value.number);
            break;
        case SessionUse::kRejected:
            return CR_STATUS_INVALID_PARAMETER;
    }
    sorted.refreshes = sorted.refreshes || row.refreshesTransport;
    return CR_STATUS_OK;
}

uint32_t refreshTransport(const MBSession& copy, Sorted& sorted) {
    if (sorted.transportCount > kMaxTransportOptions - kRefreshed) return tooManyTransport();
    const WSOption refreshed[kRefreshed] = {
        textOption(WS_OPT_SERVER_URL, copy.config.mbsUrl),
        textOption(WS_OPT_LOGIN, copy.config.login),
        textOption(WS_OPT_PASSWORD, copy.config.password),
        textOption(WS_OPT_SSL_KEY_LOCATION, copy.config.sslKeyLocation)};
    for (const WSOption& option : refreshed)
        sorted.transport[sorted.transportCount++] = option;
    return WSSetOpt(copy.transport, sorted.transport, sorted.transportCount);
}

uint32_t apply(MBSession& copy, const KSOption* options, uint32_t count) {
    Sorted sorted{};
    uint32_t status = CR_STATUS_OK;
    for (uint32_t i = 0; i < count && status == CR_STATUS_OK; ++i)
        status = sortOne(copy, options[i], sorted);
    if (status == CR_STATUS_OK && sorted.forwardedCount > 0) {
        status = KSConfigSet(&copy.config, sorted.forwarded, sorted.forwardedCount);
    }
    if (status == CR_STATUS_OK && sorted.refreshes) status = refreshTransport(copy, sorted);
    return status;
}

}  // namespace
}  // namespace kspool

using namespace kspool;

uint32_t MBOptionsSet(MBSession* session, const KSOption* options, uint32_t count) noexcept {
    if (session == nullptr) return CR_STATUS_NULL_HANDLE;
    if (options == nullptr && count > 0) return storeStatus(CR_STATUS_INVALID_PARAMETER);
    MBSession copy = *session;
    const ScopedWipe wiped(copy);
    const uint32_t status = apply(copy, options, count);
    if (status == CR_STATUS_OK) {
        // Not `transport`, which stays and which MBAbort() may be reading in another thread.
        session->state = copy.state;
        session->config = copy.config;
        session->opt133Value = copy.opt133Value;
    }
    return storeStatus(status);
}

uint32_t MBAuthenticate(MBSession* session, const char* login, const char* password) noexcept {
    if (session == nullptr) return CR_STATUS_NULL_HANDLE;
    KSOption options[2];
    options[0].code = KS_OPT_LOGIN;
    options[0].value.text = login;
    options[1].code = KS_OPT_PASSWORD;
    options[1].value.text = password;
    return KSConfigSet(&session->config, options, 2);
}
