// The summary of a configuration in the trace. A password is shown as "*".
#include "ks/ks_int.h"

using namespace kspool;

void _ksDump(const KSConfig* config) noexcept {
    if (config == nullptr) return;
    const auto set = [=](uint32_t flag) { return (config->flags & flag) != 0; };
    const auto text = [=](uint32_t flag, const char* value) {
        return set(flag) ? value : "(not set)";
    };
    const auto id = [=](uint32_t flag, uint32_t value) { return set(flag) ? long{value} : -1L; };
    KS_TRACE(
        "%s summary:\n"
        "Application            : %s\n"
        "StoragePoolID          : %li\n"
        "AgentID                : %li\n"
        "SPA URL                : %s\n"
        "MBS URL                : %s\n"
        "SPA/MBS login          : %s\n"
        "SPA/MBS passwd         : %s\n"
        "Fingerprint Type       : %i\n"
        "Recommended route table: %s\n"
        "Current route table    : %s\n"
        "SSL Key Location       : %s\n",
        "_ksDump", text(KS_CFG_APPLICATION, config->applicationName),
        id(KS_CFG_STORAGE_POOL_ID, config->storagePoolId), id(KS_CFG_AGENT_ID, config->agentId),
        text(KS_CFG_SPA_URL, config->spaUrl), text(KS_CFG_MBS_URL, config->mbsUrl),
        text(KS_CFG_LOGIN, config->login), text(KS_CFG_PASSWORD, "*"), int{config->fingerprintType},
        text(KS_CFG_ROUTE_TABLES, config->recommendedRouteTable),
        text(KS_CFG_ROUTE_TABLES, config->currentRouteTable),
        text(KS_CFG_SSL_KEY, config->sslKeyLocation));
}
