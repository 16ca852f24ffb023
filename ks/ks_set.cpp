// Options of an agent configuration. They are applied to a copy, which replaces the record only
// when all options are valid.
#include <cstring>

#include "common/option_table.h"
#include "common/secret.h"
#include "ks/ks_int.h"

namespace kspool {
namespace {

constexpr uint8_t kNoDoType = 255;

/// The field of a text option, and its flag.
struct TextField {
    char* text;
    uint32_t flag;
};

TextField textField(KSConfig& config, ConfigField field) {
    switch (field) {
        case ConfigField::kLogin:
            return {config.login, KS_CFG_LOGIN};
        case ConfigField::kPassword:
            return {config.password, KS_CFG_PASSWORD};
        case ConfigField::kApplicationName:
            return {config.applicationName, 0};  // its flag is set by the initialisation
        case ConfigField::kSpaUrl:
            return {config.spaUrl, KS_CFG_SPA_URL};
        default:
            return {config.mbsUrl, KS_CFG_MBS_URL};
    }
}

void clearRouteTables(KSConfig& config) {
    config.flags &= ~static_cast<uint32_t>(KS_CFG_ROUTE_TABLES);
    config.recommendedRouteTable[0] = '\0';
    config.currentRouteTable[0] = '\0';
}

uint32_t applyText(KSConfig& config, const OptionRow& row, const char* text) {
    const bool empty = text == nullptr || *text == '\0';
    if (empty && row.text == ConfigText::kClearsIfNone) {
        clearRouteTables(config);
        return CR_STATUS_OK;
    }
    if (text == nullptr || (empty && row.text == ConfigText::kNonEmpty)) {
        return CR_STATUS_INVALID_PARAMETER;
    }
    if (strnlen(text, row.capacity) == row.capacity) return CR_STATUS_LIMIT_EXCEEDED;
    if (row.field == ConfigField::kRouteTableDir) {
        nameRouteTables(config, text);
        return CR_STATUS_OK;
    }
    const TextField field = textField(config, row.field);
    // strncpy() pads the field with NULs: otherwise the end of a longer password would remain
    // after a shorter one.
    strncpy(field.text, text, row.capacity);
    config.flags |= field.flag;
    return CR_STATUS_OK;
}

uint32_t apply(KSConfig& config, const KSOption& option) {
    const OptionRow& row = optionRow(option.code);
    const uint64_t number = option.value.number;
    switch (row.field) {
        case ConfigField::kNone:
            return CR_STATUS_OK;
        case ConfigField::kFingerprintType:
            if (CRFPTypeIsValid(static_cast<uint32_t>(number)) == 0) return CR_STATUS_INVALID_VALUE;
            config.fingerprintType = static_cast<uint8_t>(number);
            return CR_STATUS_OK;
        case ConfigField::kDoType:
            if (CRDOTypeIsValid(static_cast<uint8_t>(number)) == 0) return CR_STATUS_INVALID_VALUE;
            config.doType = static_cast<uint8_t>(number);
            return CR_STATUS_OK;
        default:
            return applyText(config, row, option.value.text);
    }
}

}  // namespace
}  // namespace kspool

using namespace kspool;

uint32_t KSConfigSet(KSConfig* config, const KSOption* options, uint32_t count) noexcept {
    if (config == nullptr || (options == nullptr && count > 0)) return CR_STATUS_INVALID_PARAMETER;
    KSConfig copy = *config;
    const ScopedWipe wiped(copy);
    copy.doType = kNoDoType;
    uint32_t status = CR_STATUS_OK;
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t failed = apply(copy, options[i]);
        if (failed != CR_STATUS_OK) status = failed;
    }
    if (status != CR_STATUS_OK) return status;
    *config = copy;
    _ksDump(config);
    return CR_STATUS_OK;
}
