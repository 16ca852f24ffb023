// The space of option codes as one table: how each consumer treats each code. Sessions and agent
// configurations read the same rows, so that they cannot disagree about a code.
#ifndef COMMON_OPTION_TABLE_H
#define COMMON_OPTION_TABLE_H

#include <cstdint>

#include "ks_option.h"

namespace kspool {

/// A variadic option list: how the value that follows a code is read.
enum class VaValue : uint8_t {
    kEndsList,  ///< no value follows; the list is over
    kRefused,   ///< the list is not accepted
    kWord64,    ///< 64 bits, integer or text
    kWord32,    ///< a 32-bit integer, stored zero-extended
};

/// Options of a session.
enum class SessionUse : uint8_t {
    kCrOnly,     ///< another component's: ignored with a trace
    kSpOnly,     ///< another component's: ignored with a trace
    kIgnored,    ///< ignored without a trace
    kForwarded,  ///< passed on to the agent configuration
    kRecorded,   ///< the value is kept in the session
    kTransport,  ///< passed on to the transport under `transportCode`
    kRejected,   ///< ends the call
};

/// Options of an agent configuration: the field that the value goes to.
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

/// Which texts an agent configuration accepts besides non-empty ones.
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
    bool refreshesTransport;  ///< login, password, URL and key go to the transport again
    uint32_t transportCode;   ///< WS_OPT_... of a SessionUse::kTransport row
    ConfigField field;
    ConfigText text;
    uint32_t capacity;  ///< texts must be shorter than this
};

/// The most records of a kind in one call.
enum OptionLimit : uint32_t {
    kMaxVaOptions = 32,
    kMaxForwardedOptions = 31,
    kMaxTransportOptions = 7,
};

/// The row of a code. Every code has one.
const OptionRow& optionRow(uint32_t code) noexcept;

}  // namespace kspool

#endif
