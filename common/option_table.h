// The option codes as one table: how each consumer treats each code. A new option is a new row, and
// a static_assert proves that the rows cover all 32-bit codes exactly once.
#ifndef COMMON_OPTION_TABLE_H
#define COMMON_OPTION_TABLE_H

#include <cstdint>

#include "ks_option.h"

namespace kspool {

/// How a variadic option list reads the value behind a code.
enum class VaValue : uint8_t {
    kEndsList,  ///< no value follows; the list is over
    kRefused,   ///< the list is not accepted
    kWord64,    ///< 64 bits, integer or text
    kWord32,    ///< a 32-bit integer, stored zero-extended
};

/// How a session treats an option.
enum class SessionUse : uint8_t {
    kCrOnly,     ///< another component's: ignored with a trace
    kSpOnly,     ///< another component's: ignored with a trace
    kIgnored,    ///< ignored without a trace
    kForwarded,  ///< passed on to the agent configuration
    kRecorded,   ///< the value is kept in the session
    kTransport,  ///< passed on to the transport under `transportCode`
    kRejected,   ///< ends the call
};

/// The field of an agent configuration that an option sets.
enum class ConfigField : uint8_t {
    kNone,  ///< ignored
    kLogin,
    kPassword,
    kApplicationName,
    kRouteTableDir,
    kSpaUrl,
    kMbsUrl,
    kFingerprintType,
    kDoType,
};

/// Which texts an option of an agent configuration accepts, as far as NULL and empty ones go.
enum class ConfigText : uint8_t {
    kNotText,
    kNonEmpty,      ///< neither NULL nor empty
    kMayBeEmpty,    ///< empty, but not NULL
    kClearsIfNone,  ///< NULL or empty clears the field
};

/// A range of codes that are treated alike.
struct OptionRow {
    uint32_t first;
    uint32_t last;
    VaValue vaValue;
    SessionUse session;
    bool refreshesTransport;  ///< passes URL, login, password and key to the transport again
    uint32_t transportCode;   ///< WS_OPT_... of a SessionUse::kTransport row
    ConfigField field;
    ConfigText text;
    uint32_t capacity;  ///< texts must be shorter than this
};

/// Limits on the number of records of each kind in one call.
enum OptionLimit : uint32_t {
    kMaxVaOptions = 32,
    kMaxForwardedOptions = 31,
    kMaxTransportOptions = 7,
};

/// The row of a code. Every code has one.
const OptionRow& optionRow(uint32_t code) noexcept;

}  // namespace kspool

#endif
