// Reads the agent's configuration file: one table row for each directive, one case for each kind.
#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "ks/ks_int.h"
#include "platform/ini.h"

namespace kspool {
namespace {

constexpr int32_t kMaximumReconnectTimeout = 3600;
constexpr int32_t kDefaultReconnectTimeout = 300;
constexpr uint32_t kNoFingerprintType = 255;
constexpr int kMostReadings = 10;  ///< of a file that is replaced again and again

/// How a directive's value is read, and which values are valid.
enum class Kind : uint32_t {
    kText,             ///< a text with a default
    kLabel,            ///< a text; the default is the application's name
    kUrl,              ///< a text; reported when missing
    kId,               ///< a number above 0
    kReconnect,        ///< seconds
    kFingerprintType,  ///< a type that the pool knows
    kRouteFolder,      ///< a folder, from which the paths of the route tables are made
    kPath,             ///< a path; reported when missing
};

/// One directive: its names, its field, and the flag that is set with the field. Rows are read in
/// their order: the route tables need the storage pool id and the SPA URL.
struct Directive {
    Kind kind;
    InifileSection section;
    InifileEntry entry;
    uint32_t flag;
    int capacity;  ///< characters of a text
    size_t field;
    const char* fallback;
};

// clang-format off
#define KS_FIELD(name) static_cast<int>(sizeof(KSConfig::name)) - 1, offsetof(KSConfig, name)

constexpr Directive kDirectives[] = {
    {Kind::kText,             INI_SECTION_PRODUCT,      INI_ENTRY_VENDOR,            0,                      KS_FIELD(vendorName),       "Norvale"},
    {Kind::kLabel,            INI_SECTION_PRODUCT,      INI_ENTRY_LABEL,             0,                      KS_FIELD(programLabel),     nullptr},
    {Kind::kUrl,              INI_SECTION_SPA,          INI_ENTRY_URL,               KS_CFG_SPA_URL,         KS_FIELD(spaUrl),           nullptr},
    {Kind::kUrl,              INI_SECTION_METABASE,     INI_ENTRY_URL,               KS_CFG_MBS_URL,         KS_FIELD(mbsUrl),           nullptr},
    {Kind::kId,               INI_SECTION_POOL,         INI_ENTRY_POOL_ID,           KS_CFG_STORAGE_POOL_ID, KS_FIELD(storagePoolId),    nullptr},
    {Kind::kId,               INI_SECTION_POOL,         INI_ENTRY_AGENT_ID,          KS_CFG_AGENT_ID,        KS_FIELD(agentId),          nullptr},
    {Kind::kReconnect,        INI_SECTION_POOL,         INI_ENTRY_RECONNECT_TIMEOUT, 0,                      KS_FIELD(reconnectTimeout), nullptr},
    {Kind::kFingerprintType,  INI_SECTION_FINGERPRINTS, INI_ENTRY_TYPE,              KS_CFG_FP_TYPE,         KS_FIELD(fingerprintType),  nullptr},
    {Kind::kRouteFolder,      INI_SECTION_PATHS,        INI_ENTRY_ROUTE_TABLES,      KS_CFG_ROUTE_TABLES,    kPathSize - 1, 0,           nullptr},
    {Kind::kPath,             INI_SECTION_PATHS,        INI_ENTRY_SSL_KEY,           KS_CFG_SSL_KEY,         KS_FIELD(sslKeyLocation),   nullptr},
};

#undef KS_FIELD
// clang-format on

/// Reads one directive.
class Reader {
  public:
    Reader(KSConfig& config, const char* file, const Directive& directive)
        : config_(config),
          d_(directive),
          section_(_qlx_config_section_string_table_ + directive.section),
          entry_(_qlx_config_entry_string_table_ + directive.entry),
          file_(file) {}

    void read() {
        switch (d_.kind) {
            case Kind::kText:
                text(InifileGetValueA, textField());
                break;
            case Kind::kLabel:
                if (!text(InifileGetValueA, textField())) {
                    qlxstrcpy(textField(), config_.applicationName, sizeof config_.programLabel);
                }
                break;
            case Kind::kUrl:
                setFlagOrReport(text(InifileGetValueA, textField()));
                break;
            case Kind::kPath:
                setFlagOrReport(text(InifileGetPathA, textField()));
                break;
            case Kind::kId:
                id();
                break;
            case Kind::kReconnect:
                reconnectTimeout();
                break;
            case Kind::kFingerprintType:
                fingerprintType();
                break;
            case Kind::kRouteFolder:
                routeTables();
                break;
        }
    }

  private:
    char* textField() { return reinterpret_cast<char*>(&config_) + d_.field; }

    /// True when the file has a value; otherwise `destination` gets the default.
    template <typename Call>
    bool text(Call call, char* destination) {
        return call(section_, entry_, destination, d_.capacity, d_.fallback, file_) >= 1;
    }

    void setFlagOrReport(bool given) {
        if (given) {
            config_.flags |= d_.flag;
        } else {
            InifileNoticeA(file_, section_, entry_, 0, "Missing configuration directive");
        }
    }

    void id() {
        int64_t value = -1;
        InifileGetLongLongA(section_, entry_, &value, -1, file_);
        if (value > 0) {
            const auto low = static_cast<uint32_t>(value);
            memcpy(textField(), &low, sizeof low);
            config_.flags |= d_.flag;
        } else {
            InifileValueNoticeA(file_, section_, entry_, value,
                                "Incorrect ID or system not configured");
        }
    }

    void reconnectTimeout() {
        int32_t seconds = 0;
        InifileGetIntegerA(section_, entry_, &seconds, 0, file_);
        if (seconds > kMaximumReconnectTimeout) {
            InifileValueErrorA(
                file_, section_, entry_, seconds,
                "specified value must be between 0 and %i. Defaulting to %i seconds.",
                kMaximumReconnectTimeout, kDefaultReconnectTimeout);
            seconds = kDefaultReconnectTimeout;
        }
        config_.reconnectTimeout = std::max(seconds, 0);
    }

    void fingerprintType() {
        int32_t type = 0;
        InifileGetIntegerA(section_, entry_, &type, CR_FP_SHA256, file_);
        if (CRFPTypeIsValid(static_cast<uint32_t>(type)) != 0) {
            config_.fingerprintType = static_cast<uint8_t>(type);
            config_.flags |= d_.flag;
        } else if (static_cast<uint32_t>(type) != kNoFingerprintType) {
            InifileValueNoticeA(file_, section_, entry_, type,
                                "Incorrect value or system not configured");
        }
    }

    void routeTables() {
        char folder[kPathSize] = "";
        const bool given = text(InifileGetPathA, folder);
        const bool usable = given && (config_.flags & KS_CFG_STORAGE_POOL_ID) != 0;
        if (usable) findRouteTables(config_, folder);
        setFlagOrReport(usable);
    }

    KSConfig& config_;
    const Directive& d_;
    const char* section_;
    const char* entry_;
    const char* file_;
};

/// Tells a file from the one that replaces it, and from itself before it was written to.
struct FileState {
    dev_t device = 0;
    ino_t number = 0;
    off_t size = 0;
    time_t seconds = 0;
    long nanoseconds = 0;
    bool operator==(const FileState&) const = default;
};

FileState stateOf(const char* path) {
    struct stat status {};
    if (stat(path, &status) != 0) return {};
    return {status.st_dev, status.st_ino, status.st_size, status.st_mtim.tv_sec,
            status.st_mtim.tv_nsec};
}

/// Resets the record after a failed initialisation: all bytes are 0 except one flag, since programs
/// may compare or store records as bytes.
void fail(KSConfig* config) {
    *config = {};
    config->flags = KS_CFG_APPLICATION;
}

uint32_t failUnreadable(KSConfig* config) {
    fail(config);
    return storeSystemError("KSConfigInitWithAgentCfg", kKsSource);
}

}  // namespace

void _configLoad(KSConfig* config, const char* path) {
    KS_TRACE("%s: reading config settings from %s", "_configLoad", path);
    if (*path != '\0') {
        qlxstrcpy(config->configFile, path, sizeof config->configFile);
        config->flags |= KS_CFG_CONFIG_FILE;
    }
    // Each directive opens the file anew: when it is replaced meanwhile, the record would be a
    // mixture of two files.
    const KSConfig unread = *config;
    FileState before = stateOf(path);
    for (int rest = kMostReadings; rest > 0; --rest) {
        *config = unread;
        for (const Directive& directive : kDirectives)
            Reader(*config, path, directive).read();
        const FileState after = stateOf(path);
        if (after == before) break;
        before = after;
    }
    _ksDump(config);
}

}  // namespace kspool

using namespace kspool;

void KSConfigInitWithAgentCfg(KSConfig* config, const char* agentCfgPath) noexcept {
    if (config == nullptr) return;
    memset(config, 0, sizeof *config);
    qlxstrcpy(config->applicationName, OSGetProcName(0), sizeof config->applicationName);
    config->flags |= KS_CFG_APPLICATION;

    char located[kPathSize];
    if (agentCfgPath != nullptr) {
        if (qlx_access(agentCfgPath, 4) != 0) {
            const uint32_t status = failUnreadable(config);
            KS_NOTICE(status, "given client cfg (%s) not readable (%s)", agentCfgPath,
                      strerror(errno));
            return;
        }
    } else if (CRConfigLocate("Agent", located, sizeof located) == nullptr) {
        fail(config);
        KS_NOTICE(statusSlot(), "%s: location of %s configuration file not found",
                  "KSConfigInitWithAgentCfg", "Agent");
        return;
    } else if (qlx_access(located, 4) != 0) {
        const uint32_t status = failUnreadable(config);
        KS_NOTICE(status, "%s: found but not readable (%s)", located, strerror(errno));
        return;
    }
    _configLoad(config, agentCfgPath != nullptr ? agentCfgPath : located);
}
